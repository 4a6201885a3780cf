// What is signed of what an author wrote.
#pragma once

#include <string>
#include <string_view>

#include "tools/storebag/Source.h"

namespace corvid::storebag {

// The bytes that devices read: those of a property list as they are, and JSON as a property list in
// XML. Where that would mean something else than the JSON does (null, control characters, fractions
// of a second), a CommandError names `name` and the path of the value.
std::string bagOf(const Content& content, std::string_view name);

}  // namespace corvid::storebag
