// What one user may have of something that all users share and nobody can be made to give back.
//
// Two thirds of what the others leave, so that however many take what they may, one who comes
// later finds room: one user alone gets two thirds, two get two fifths each.
#pragma once

#include <algorithm>
#include <cstddef>

namespace corvid {

// Of which one user alone gets `alone`.
constexpr std::size_t capacityFor(std::size_t alone) { return alone + (alone + 1) / 2; }

// The most that a user may have while others have so much; something as long as anything is free.
constexpr std::size_t shareBeside(std::size_t others, std::size_t capacity) {
  const std::size_t left = capacity - std::min(others, capacity);
  return std::max(std::min<std::size_t>(left, 1), left - (left + 2) / 3);
}

// Whether a user who has `own` of the `all` that is taken may have `more`.
constexpr bool leavesRoomForOthers(std::size_t own, std::size_t all, std::size_t more,
                                   std::size_t capacity) {
  return more <= capacity && own + more <= shareBeside(all - own, capacity);
}

}  // namespace corvid
