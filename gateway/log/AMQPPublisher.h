#pragma once

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "base/Mutex.h"
#include "base/Wakeup.h"
#include "gateway/log/AMQPAddress.h"
#include "gateway/log/AMQPConnection.h"
#include "gateway/log/MessageLog.h"
#include "gateway/log/Unconfirmed.h"

namespace corvid::fleet {

// Writes into quorum queues of RabbitMQ, one a stream, through one node at a time; the next one
// when it is lost. What was not confirmed then is sent again, so that a message may stand in the
// log twice, with one ID. `stored`: a majority of the nodes has synced it to its disk. `refused`:
// it is larger than a node takes, or its names are.
class AMQPPublisher final : public LogPublisher {
 public:
  struct Options {
    std::chrono::milliseconds patience{20000};  // until a message counts as unanswered
    std::size_t mostBytes = 256 << 20;          // of the messages that were not completed yet
    std::chrono::seconds heartbeat{2};
    std::chrono::seconds connecting{3};
  };
  // Returns at once.
  AMQPPublisher(AMQPAddress address, const Options& options);
  explicit AMQPPublisher(AMQPAddress address) : AMQPPublisher(std::move(address), Options()) {}
  // Completes everything.
  ~AMQPPublisher() override;

  void publish(LogMessage message, Completion completion) override;
  bool isReady() const override;

 private:
  class Shown;
  void run(const std::stop_token& stop);
  void backOff(const std::stop_token& stop);
  void connectTo(const AMQPAddress::Node& node, const std::stop_token& stop);
  void show(int socket) EXCLUDES(_socketMutex);
  void expireAll(const std::stop_token& stop);
  // Until the connection is lost, which is a std::runtime_error, or `stop`.
  void serve(AMQPConnection& connection, const std::stop_token& stop);
  void sendWaiting(AMQPConnection& connection, std::set<std::string>& declared);
  // What the node has said until now.
  void receive(AMQPConnection& connection);
  void take(AMQPConnection& connection, const amqp_frame_t& frame);
  void skipReturned(AMQPConnection& connection);
  // Throws where confirmations stay out: a node that knew the leader which died may wait for it to
  // come back, and forward nothing to the new one.
  void checkStall();

  const AMQPAddress _address;
  const Options _options;
  const Wakeup _wakeup;
  Unconfirmed _unconfirmed;
  std::atomic<bool> _isConnected{false};
  std::atomic<bool> _isBlocked{false};        // the node takes nothing: it lacks memory or disk
  Unconfirmed::Clock::time_point _confirmed;  // when the last confirmation came
  std::chrono::seconds _stall;                // without one, until another node is tried
  std::chrono::milliseconds _backOff;         // before the next connection
  bool _hasReturned = false;  // the next confirmation is of a message that no queue took

  Mutex _socketMutex;
  int _socket GUARDED_BY(_socketMutex) = -1;
  Mutex _expiryMutex;
  Condition _expiryChanged;
  std::jthread _expiry;
  std::jthread _worker;
};

}  // namespace corvid::fleet
