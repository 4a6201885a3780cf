#pragma once

#include <string>

namespace corvid::fleet {

// Messages a second and what they cost, of one node's stream on three nodes without faults; prints
// a table. Exit status.
int measure(const std::string& candidate);

}  // namespace corvid::fleet
