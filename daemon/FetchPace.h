// How fast the clients of one user may have storebags fetched.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>

#include "platform/Clock.h"

namespace corvid {

// A user may have so many fetches at once, then one an interval. What configurations of ordinary
// clients need is far below it.
//
// Not synchronised.
class FetchPace {
 public:
  static constexpr int burst = 64;
  static constexpr std::chrono::seconds interval{1};

  // When the user's next fetch may begin. Where that is `now` it is taken to begin.
  Clock::TimePoint next(std::uint32_t user, Clock::TimePoint now);

 private:
  // For each user: when there would be a whole burst again. Past times are forgotten.
  std::map<std::uint32_t, Clock::TimePoint> _rested;
};

}  // namespace corvid
