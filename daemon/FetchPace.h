// How fast the clients of one user may have storebags fetched.
#pragma once

#include <chrono>
#include <cstdint>

#include "base/Pace.h"

namespace corvid {

// A user may have so many fetches at once, then one an interval. What configurations of ordinary
// clients need is far below it.
class FetchPace : public Pace<std::uint32_t> {
 public:
  static constexpr int burst = 64;
  static constexpr std::chrono::seconds interval{1};

  FetchPace() : Pace(burst, interval) {}
};

}  // namespace corvid
