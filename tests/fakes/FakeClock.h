// A clock that stands still until it is advanced by hand.
#pragma once

#include <atomic>

#include "platform/Clock.h"

namespace corvid {

class FakeClock final : public Clock {
 public:
  TimeValue now() override {
    const std::int64_t us = _microseconds.load();
    return {us / 1000000, static_cast<std::int32_t>(us % 1000000)};
  }
  std::chrono::steady_clock::time_point steadyNow() override {
    return std::chrono::steady_clock::time_point(std::chrono::microseconds(_microseconds.load()));
  }

  void set(TimeValue time) { _microseconds = time.seconds * 1000000 + time.microseconds; }
  void advance(std::chrono::microseconds by) { _microseconds += by.count(); }

 private:
  std::atomic<std::int64_t> _microseconds{1'700'000'000'000'000};  // 2023-11-14 22:13:20
};

}  // namespace corvid
