// Wall-clock and steady time. Any thread.
#pragma once

#include <chrono>

#include "base/TimeValue.h"

namespace corvid {

class Clock {
 public:
  virtual ~Clock() = default;
  // Time of day, UTC.
  virtual TimeValue now() = 0;
  // Never goes back; for measuring and waiting.
  virtual std::chrono::steady_clock::time_point steadyNow() = 0;
};

}  // namespace corvid
