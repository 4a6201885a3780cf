#include "platform/system/SystemClock.h"

#include <ctime>

namespace corvid {

TimeValue SystemClock::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return {time.tv_sec, static_cast<std::int32_t>(time.tv_nsec / 1000)};
}

std::chrono::steady_clock::time_point SystemClock::steadyNow() {
  return std::chrono::steady_clock::now();
}

}  // namespace corvid
