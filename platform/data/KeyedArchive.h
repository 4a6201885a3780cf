// Property-list values as an archive that another machine can take apart.
#pragma once

#include <optional>
#include <string>

#include "base/Value.h"

namespace corvid {

// The array as a binary property list. Nothing where it holds, at any depth, what a property list
// has no form for: an archive that lacks some of its items would not tell.
std::optional<std::string> archivedData(const Array& array);

}  // namespace corvid
