#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "gateway/log/AMQPAddress.h"
#include "gateway/log/AMQPConnection.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Reads quorum queues of RabbitMQ, through any node that lets it. Any number of readers share
// a stream: each message goes to one of them. `read` keeps the connection alive, and has to be
// called every few seconds.
class AMQPReader final : public LogReader {
 public:
  struct Options {
    std::uint16_t ahead = 1000;        // messages that are this reader's and not released
    std::size_t mostBytes = 32 << 20;  // of the bodies in one read; the last may go beyond
    std::chrono::seconds heartbeat{10};
    std::chrono::seconds connecting{3};
    // Where nothing has come for so long, another node is tried: one that has lost its queues may
    // go on without them.
    std::chrono::seconds silence{10};
  };
  // std::runtime_error where no node lets it.
  AMQPReader(const AMQPAddress& address, const std::vector<std::string>& streams,
             const Options& options);
  AMQPReader(const AMQPAddress& address, const std::vector<std::string>& streams)
      : AMQPReader(address, streams, Options()) {}

  std::vector<LoggedMessage> read(std::size_t most, std::chrono::milliseconds wait) override;
  void release(std::uint64_t position) override;

 private:
  // To the next node that lets every stream be read.
  void connect();
  std::unique_ptr<AMQPConnection> readingFrom(const AMQPAddress::Node& node) const;
  bool isSilent() const;

  const AMQPAddress _address;
  const std::vector<std::string> _streams;
  const Options _options;
  std::size_t _next;  // of the nodes
  std::unique_ptr<AMQPConnection> _connection;
  std::chrono::steady_clock::time_point _heard;
  std::uint64_t _read = 0;  // the last position
  std::uint64_t _released = 0;
};

}  // namespace corvid::fleet
