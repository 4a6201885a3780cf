// A connection to a collector, over which anything can be sent.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "tools/lab/conform/Collector.h"
#include "tools/lab/conform/Reply.h"

struct ssl_st;

namespace corvid::lab::conform {

// Every call ends within the collector's patience. One thread.
class Connection {
 public:
  // Throws std::runtime_error where it cannot be had: the text says at what it failed.
  explicit Connection(const Collector& collector);

  // Sends until all is sent, the peer has answered or takes no more.
  void send(std::string_view bytes);
  // Nothing more comes, and the peer can see so.
  void endWriting();
  // The next answer, those with status 100 too, within `limit` at most.
  Reply reply(std::chrono::milliseconds limit);
  Reply reply() { return reply(_patience); }

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  enum class Need { none, readable, writable, closed };

  void connectTo(const Collector& collector);
  void startTLS(const Collector& collector);
  Need needAfter(int result) const;
  // What is there now.
  Need readSome();
  Need writeSome(std::string_view& bytes);
  // False where the time is up.
  bool wait(bool forWriting, Deadline deadline) const;
  Deadline deadlineIn(std::chrono::milliseconds limit) const {
    return std::chrono::steady_clock::now() + limit;
  }

  const std::chrono::milliseconds _patience;
  Descriptor _socket;
  std::shared_ptr<ssl_st> _ssl;  // none: in the clear
  std::string _read;
  bool _isOver = false;
};

}  // namespace corvid::lab::conform
