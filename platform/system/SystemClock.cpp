#include "platform/system/SystemClock.h"

#include <algorithm>
#include <ctime>

namespace corvid {

TimeValue SystemClock::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec / 1000)};
}

Clock::TimePoint SystemClock::steadyNow() { return std::chrono::steady_clock::now(); }

std::chrono::nanoseconds SystemClock::sleepTowards(TimePoint deadline) {
  using std::chrono::nanoseconds;
  return std::clamp<nanoseconds>(deadline - steadyNow(), nanoseconds(0), std::chrono::hours(24));
}

}  // namespace corvid
