// The command line of corvid-fleet.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "bench/devices/Setup.h"

namespace corvid::bench {

struct FleetProgramOptions {
  FleetSetup setup;
  std::string database;  // empty: nothing is looked up
  std::int64_t settle = 30;
};

// The options, or the exit status of a program that is to end now.
std::variant<FleetProgramOptions, int> readFleetOptions(std::vector<std::string> arguments);

}  // namespace corvid::bench
