// Wall-clock and steady time, and waiting by it. Any thread.
#pragma once

#include <chrono>

#include "base/Mutex.h"
#include "base/TimeValue.h"

namespace corvid {

class Clock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  virtual ~Clock() = default;
  // Time of day, UTC.
  virtual TimeValue now() = 0;
  // Never goes back; for measuring and waiting.
  virtual TimePoint steadyNow() = 0;
  // For how long a thread that must notice `deadline` may sleep before it asks steadyNow() again.
  // 0 once the deadline has come, at most a day.
  virtual std::chrono::nanoseconds sleepTowards(TimePoint deadline) = 0;

  // Waits on `condition`, with `mutex` held, until `isDone` or the deadline; the last isDone().
  template <class Predicate>
  bool waitUntil(Condition& condition, Mutex& mutex, TimePoint deadline, Predicate isDone)
      REQUIRES(mutex) {
    while (!isDone()) {
      const auto left = sleepTowards(deadline);
      if (left.count() <= 0) return false;
      condition.wait_for(mutex, left);
    }
    return true;
  }
};

}  // namespace corvid
