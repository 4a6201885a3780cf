// A clock that stands still until it is advanced by hand.
#pragma once

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/Clock.h"

namespace corvid {

// Who waits by it looks at it every millisecond, so that advance() ends waits whose time has come.
class FakeClock final : public Clock {
 public:
  TimeValue now() override {
    const std::int64_t us = _microseconds.load();
    return {us / 1000000, static_cast<std::int32_t>(us % 1000000)};
  }
  TimePoint steadyNow() override {
    return TimePoint(std::chrono::microseconds(_microseconds.load()));
  }
  std::chrono::nanoseconds sleepTowards(TimePoint deadline) override {
    using std::chrono::nanoseconds;
    ++_sleeps;
    return std::clamp<nanoseconds>(deadline - steadyNow(), nanoseconds(0),
                                   std::chrono::milliseconds(1));
  }

  void set(TimeValue time) { _microseconds = time.seconds * 1000000 + time.microseconds; }
  void advance(std::chrono::microseconds by) { _microseconds += by.count(); }
  // Returns once some thread waits by this clock; false where none does for so long.
  bool awaitSleeper(std::chrono::seconds patience = std::chrono::seconds(20)) const {
    const std::uint64_t before = _sleeps;
    const auto end = std::chrono::steady_clock::now() + patience;
    while (_sleeps == before && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return _sleeps != before;
  }

 private:
  std::atomic<std::int64_t> _microseconds{1'700'000'000'000'000};  // 2023-11-14 22:13:20
  std::atomic<std::uint64_t> _sleeps{0};
};

}  // namespace corvid
