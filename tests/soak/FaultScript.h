// What goes wrong in a round.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/soak/History.h"

namespace corvid::soak {

// How many processes have the clients of a round; they are targets by number.
inline constexpr int clientProcesses = 20;
inline constexpr int sessionsPerProcess = 10;

// The faults of a round of that length, by their begin, with times from the round's begin on. The
// same for the same seed and round. No server has two at once; every fifth round, about, has none
// but clients that are stopped and killed.
std::vector<Fault> drawFaults(std::uint64_t seed, int round, Time length);

}  // namespace corvid::soak
