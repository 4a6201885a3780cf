#pragma once

#include <string>
#include <vector>

namespace corvid::fleet {

// What corvid-loader does from its command line to its exit status. SIGTERM and SIGINT: reads no
// more, stores what it holds, returns 0.
int runLoader(std::vector<std::string> arguments);

}  // namespace corvid::fleet
