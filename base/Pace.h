// How often something may happen for each of many keys.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>

namespace corvid {

// So often at once, then once an interval.
//
// Not synchronised.
template <class Key>
class Pace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  Pace(int burst, std::chrono::seconds interval) : _burst(burst), _interval(interval) {}

  // When it may happen next for `key`. Where that is `now` it is taken to happen.
  Time next(const Key& key, Time now) {
    // What a whole burst cannot have led to is of another clock.
    std::erase_if(_rested, [&](const auto& entry) {
      return entry.second <= now || entry.second > now + _burst * _interval;
    });
    const auto known = _rested.find(key);
    const Time rested = known == _rested.end() ? now : known->second;
    const Time begin = std::max(now, rested - (_burst - 1) * _interval);
    if (begin == now) _rested[key] = rested + _interval;
    return begin;
  }

  // Keys that have no whole burst, about.
  std::size_t size() const { return _rested.size(); }
  bool knows(const Key& key) const { return _rested.contains(key); }

 private:
  int _burst;
  std::chrono::seconds _interval;
  // For each key: when there would be a whole burst again. Past times are forgotten.
  std::map<Key, Time> _rested;
};

}  // namespace corvid
