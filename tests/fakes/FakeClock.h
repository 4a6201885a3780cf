// A clock that stands still until it is advanced by hand.
#pragma once

#include <algorithm>
#include <atomic>
#include <set>

#include "base/Mutex.h"
#include "platform/Clock.h"

namespace corvid {

// Who waits by it looks at it every millisecond, so that advance() ends waits whose time has come.
class FakeClock final : public Clock {
 public:
  TimeValue now() override {
    const std::int64_t us = _microseconds.load() + _wallAhead.load();
    return {us / 1000000, static_cast<std::int32_t>(us % 1000000)};
  }
  TimePoint steadyNow() override {
    return TimePoint(std::chrono::microseconds(_microseconds.load()));
  }
  std::chrono::nanoseconds sleepTowards(TimePoint deadline) override {
    using std::chrono::nanoseconds;
    const MutexLock lock(_mutex);
    _awaited.insert(deadline);
    _slept.notify_all();
    return std::clamp<nanoseconds>(deadline - steadyNow(), nanoseconds(0),
                                   std::chrono::milliseconds(1));
  }

  void set(TimeValue time) { _microseconds = time.seconds * 1000000 + time.microseconds; }
  void advance(std::chrono::microseconds by) { _microseconds += by.count(); }
  // The time of day is so far ahead of the steady one from now on; not at all at first.
  void setWallAhead(std::chrono::microseconds by) { _wallAhead = by.count(); }
  // Returns once a thread waits, or has waited, for the time that is `after` from now; false where
  // none does.
  bool awaitSleeper(std::chrono::microseconds after) {
    const TimePoint deadline = steadyNow() + after;
    const MutexLock lock(_mutex);
    return _slept.wait_for(_mutex, std::chrono::seconds(20),
                           [&]() NO_THREAD_SAFETY_ANALYSIS { return _awaited.contains(deadline); });
  }

 private:
  std::atomic<std::int64_t> _microseconds{1'700'000'000'000'000};  // 2023-11-14 22:13:20
  std::atomic<std::int64_t> _wallAhead{0};
  Mutex _mutex;
  Condition _slept;
  std::set<TimePoint> _awaited GUARDED_BY(_mutex);
};

}  // namespace corvid
