// Waiting until a point in time.
#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>

#include "base/Wakeup.h"

namespace corvid::library {

using PollTime = std::chrono::steady_clock::time_point;

// For poll(): whole milliseconds, rounded up; -1 for the end of time.
inline int millisecondsTo(PollTime until) {
  if (until == PollTime::max()) return -1;
  constexpr std::chrono::milliseconds most = std::chrono::hours(1);
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), most).count());
}

// Until there is news, which it takes.
inline void awaitNews(const Wakeup& news, PollTime until) {
  pollfd ready{news.descriptor(), POLLIN, 0};
  if (poll(&ready, 1, millisecondsTo(until)) > 0) news.drain();
}

}  // namespace corvid::library
