// Posts as they are read at the other end.
#pragma once

#include "platform/HTTPClient.h"
#include "tests/simulation/Step.h"

namespace corvid::simulation {

// Unpacked and parsed. Throws what is wrong with its length, its coding or its JSON.
Post postOf(const HTTPRequest& request);

}  // namespace corvid::simulation
