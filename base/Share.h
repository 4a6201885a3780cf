// What one user may have of something that all users share and nobody can be made to give back.
//
// A user may take as long as at least half of what he then has is left over for others. One user
// alone thus gets two thirds, two get two fifths each, and however many there are, one who has
// nothing finds room.
#pragma once

#include <cstddef>

namespace corvid {

// Of which one user alone gets `alone`.
constexpr std::size_t capacityFor(std::size_t alone) { return alone + (alone + 1) / 2; }

// Whether a user who has `own` of the `all` that is taken may have `more`.
constexpr bool leavesRoomForOthers(std::size_t own, std::size_t all, std::size_t more,
                                   std::size_t capacity) {
  return all <= capacity && more <= capacity - all && own + more <= 2 * (capacity - all - more);
}

}  // namespace corvid
