// A load of devices.
#pragma once

#include "bench/devices/Setup.h"
#include "bench/devices/Tally.h"

namespace corvid::bench {

// Returns when each device has had the answer to its last post, a minute after the load's end at
// the latest; SIGINT and SIGTERM end it. std::runtime_error where the URL or the authorities cannot
// be used. Uses this thread only.
Tally runLoad(const FleetSetup& setup);

}  // namespace corvid::bench
