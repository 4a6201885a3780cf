// How many events of each method a batch has got.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <unordered_map>

namespace corvid {

// Counts up to `limit` methods, as many as events can have. Only a user info that names others gets
// past it, by changing: then all begin anew.
//
// Threads: not synchronised.
class MethodCounts {
 public:
  static constexpr std::size_t limit = 65'536;

  std::int32_t of(std::int32_t method) const {
    const auto found = _counts.find(method);
    return found == _counts.end() ? 0 : found->second;
  }
  void set(std::int32_t method, std::int32_t count) {
    if (_counts.size() >= limit && !_counts.contains(method)) _counts.clear();
    _counts[method] = count;
  }
  // Stays at the largest number.
  void increment(std::int32_t method) {
    const std::int32_t count = of(method);
    if (count < std::numeric_limits<std::int32_t>::max()) set(method, count + 1);
  }
  void clear() { _counts.clear(); }

 private:
  std::unordered_map<std::int32_t, std::int32_t> _counts;
};

}  // namespace corvid
