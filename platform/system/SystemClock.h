// The system's clocks.
#pragma once

#include "platform/Clock.h"

namespace corvid {

class SystemClock final : public Clock {
 public:
  TimeValue now() override;
  TimePoint steadyNow() override;
  std::chrono::nanoseconds sleepTowards(TimePoint deadline) override;
};

}  // namespace corvid
