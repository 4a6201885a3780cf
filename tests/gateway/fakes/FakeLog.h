// A log that does as it is told.
#pragma once

#include <cstddef>
#include <deque>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Keeps what it stores, each ID once. Answers on a thread of its own, in order.
//
// Threads   any.
class FakeLog final : public LogPublisher {
 public:
  enum class Mode {
    stores,
    refuses,
    failsToAnswer,  // answers `unanswered`
    silent,         // keeps what comes until the mode is another
  };

  // `keepsBodies`: whether messages() has bodies, which take memory.
  explicit FakeLog(Mode mode = Mode::stores, bool keepsBodies = true);
  // What is silent is answered `unanswered`.
  ~FakeLog() override;

  void publish(LogMessage message, Completion completion) override EXCLUDES(_mutex);
  bool isReady() const override EXCLUDES(_mutex);

  void setMode(Mode mode) EXCLUDES(_mutex);
  void setReady(bool isReady) EXCLUDES(_mutex);
  std::vector<LogMessage> messages() const EXCLUDES(_mutex);  // stored, in order
  std::size_t published() const EXCLUDES(_mutex);             // calls of publish()

 private:
  struct Waiting {
    LogMessage message;
    Completion completion;
  };
  void run() EXCLUDES(_mutex);
  Published take(LogMessage& message) REQUIRES(_mutex);

  const bool _keepsBodies;
  mutable Mutex _mutex;
  Condition _changed;
  Mode _mode GUARDED_BY(_mutex);
  bool _isReady GUARDED_BY(_mutex) = true;
  bool _isEnding GUARDED_BY(_mutex) = false;
  std::deque<Waiting> _waiting GUARDED_BY(_mutex);
  std::vector<LogMessage> _stored GUARDED_BY(_mutex);
  std::set<std::string> _ids GUARDED_BY(_mutex);
  std::size_t _published GUARDED_BY(_mutex) = 0;
  std::thread _thread;
};

}  // namespace corvid::fleet
