// JetStream behind the log's interface, for comparison: the product does not use it.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// One connection, which looks for another node by itself; std::runtime_error where none answers.
class NatsConnection {
 public:
  explicit NatsConnection(const std::string& url);
  ~NatsConnection();
  NatsConnection(const NatsConnection&) = delete;
  NatsConnection& operator=(const NatsConnection&) = delete;

  natsConnection* get() const { return _connection; }

 private:
  natsConnection* _connection = nullptr;
};

// Into streams of three replicas on disk. What is not acknowledged is sent again with its ID, by
// which the log knows it for two minutes.
class NatsPublisher final : public LogPublisher {
 public:
  NatsPublisher(const std::string& url, std::chrono::milliseconds patience);
  ~NatsPublisher() override;

  void publish(LogMessage message, Completion completion) override;
  bool isReady() const override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    LogMessage message;
    Completion completion;
    Clock::time_point deadline;
  };
  static void onAnswer(jsCtx*, natsMsg* message, jsPubAck* stored, jsPubAckErr*, void* self);
  void run(const std::stop_token& stop);
  void complete(const std::string& id, Published outcome);
  void send(const std::string& id);
  void expire();

  NatsConnection _connection;
  jsCtx* _stream = nullptr;
  const std::chrono::milliseconds _patience;
  std::mutex _mutex;
  std::condition_variable_any _changed;
  std::map<std::string, Entry> _entries;
  std::deque<std::pair<Clock::time_point, std::string>> _byDeadline;
  std::vector<std::string> _unsent;
  std::map<std::string, bool> _made;  // streams
  std::jthread _worker;
};

// Through a durable consumer that readers of one name share.
class NatsReader final : public LogReader {
 public:
  NatsReader(const std::string& url, const std::string& stream, const std::string& name);
  ~NatsReader() override;

  std::vector<LoggedMessage> read(std::size_t most, std::chrono::milliseconds wait) override;
  void release(std::uint64_t position) override;

 private:
  NatsConnection _connection;
  jsCtx* _context = nullptr;
  natsSubscription* _subscription = nullptr;
  std::deque<std::pair<std::uint64_t, natsMsg*>> _held;
  std::uint64_t _position = 0;
};

void purgeNatsStream(const std::string& url, const std::string& stream);

}  // namespace corvid::fleet
