// What callgrind has counted.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <string>

namespace corvid::bench {

// The instructions of each program and library, by the name of its file, as callgrind wrote them.
// std::runtime_error where that is not its format.
std::map<std::string, std::int64_t> instructionsIn(std::istream& profile);

}  // namespace corvid::bench
