#include "daemon/FetchPace.h"

#include <algorithm>

namespace corvid {

Clock::TimePoint FetchPace::next(std::uint32_t user, Clock::TimePoint now) {
  // What a whole burst cannot have led to is of another clock.
  std::erase_if(_rested, [&](const auto& entry) {
    return entry.second <= now || entry.second > now + burst * interval;
  });
  const auto known = _rested.find(user);
  const Clock::TimePoint rested = known == _rested.end() ? now : known->second;
  const Clock::TimePoint begin = std::max(now, rested - (burst - 1) * interval);
  if (begin == now) _rested[user] = rested + interval;
  return begin;
}

}  // namespace corvid
