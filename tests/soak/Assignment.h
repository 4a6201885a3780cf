// Whether what is missing can be what was counted.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tests/soak/Causes.h"

namespace corvid::soak {

// `missing` says how many events may have which words each, `counted` how often each word was
// counted. Gives how many events remain when each that can be is put under one of its words, and no
// word has more than it counted.
std::int64_t unassigned(const std::map<Words, std::int64_t>& missing,
                        const std::map<std::string, std::int64_t>& counted);

}  // namespace corvid::soak
