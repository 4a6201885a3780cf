// The system's clocks.
#pragma once

#include "platform/Clock.h"

namespace corvid {

class SystemClock final : public Clock {
 public:
  TimeValue now() override;
  std::chrono::steady_clock::time_point steadyNow() override;
};

}  // namespace corvid
