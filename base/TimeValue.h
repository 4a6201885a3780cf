// Wall-clock time as whole seconds and microseconds since 1970.
#pragma once

#include <cmath>
#include <cstdint>

namespace corvid {

struct TimeValue {
  std::int64_t seconds = 0;
  std::int32_t microseconds = 0;

  double asDouble() const {
    return static_cast<double>(seconds) + static_cast<double>(microseconds) / 1000000.0;
  }
  bool operator==(const TimeValue&) const = default;
};

// What stands in a record for a time that is infinite or not a number.
inline double finiteOrMinusOne(double seconds) { return std::isfinite(seconds) ? seconds : -1.0; }

}  // namespace corvid
