// Numbered messages for a log, and what became of each.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "gateway/log/MessageLog.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

// Publishes into one stream until it is stopped, as fast as is acknowledged and asked for. Any
// thread.
class Load {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::string stream;
    std::string name;  // begins the IDs, so that messages of an earlier load are told from its own
    std::size_t bodyBytes = 1024;
    std::size_t underWay = 128;            // at most
    std::chrono::nanoseconds interval{0};  // at least, between two
  };
  // `publisher` is used until finish() has returned.
  Load(LogPublisher& publisher, Options options);

  // Publishes no more, and waits until the last has been answered; false where one is not.
  [[nodiscard]] bool finish();

  std::size_t published() const;
  std::size_t acknowledged() const;
  // The time until a message which was published after `moment` was acknowledged.
  std::optional<Clock::duration> acknowledgedAfter(Clock::time_point moment) const;

  // What a reader found; nothing is asked of the order.
  void found(const LoggedMessage& message);
  bool hasFoundAllAcknowledged() const;

  struct Sums {
    std::size_t published = 0;
    std::size_t acknowledged = 0;
    std::size_t unanswered = 0;
    std::size_t refused = 0;
    std::size_t lost = 0;          // acknowledged and not found
    std::size_t repeated = 0;      // found again, with the ID it had
    std::size_t late = 0;          // of an earlier load
    std::size_t foreign = 0;       // found, and not as it was published
    Clock::duration longestGap{};  // between two acknowledgements
  };
  Sums sums() const;

 private:
  struct Message {
    Clock::time_point published;
    std::optional<Clock::time_point> acknowledged{};
    std::size_t times = 0;  // found
  };
  void run(const std::stop_token& stop);
  void answered(std::size_t number, Published outcome);
  std::string idOf(std::size_t number) const;
  std::string bodyOf(std::size_t number) const;

  LogPublisher& _publisher;
  const Options _options;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<Message> _messages;
  std::size_t _underWay = 0;
  Sums _sums;
  Clock::time_point _lastAcknowledged;
  std::jthread _thread;
};

}  // namespace corvid::fleet
