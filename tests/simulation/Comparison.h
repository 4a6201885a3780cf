// Whether what was seen is what had to be.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tests/simulation/Step.h"

namespace corvid::simulation {

// The first difference, for people; nothing where there is none. `places` gets for each expected
// post its place among the seen ones. Posts of different backends may come in any order, as may
// answers and deliveries of different clients.
std::optional<std::string> difference(const Step& expected, const Step& seen,
                                      std::vector<std::size_t>& places);

// The same of two values, `where` being their place in something larger. Numbers are compared by
// value, to the microsecond.
std::optional<std::string> difference(const Value& expected, const Value& seen,
                                      const std::string& where);

}  // namespace corvid::simulation
