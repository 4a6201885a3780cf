// Log data as dashboards' clients post it.
#pragma once

#include <string_view>

namespace corvid::fleet {

// Whether the bytes are framed as a binary property list whose root is an array: its beginning, its
// trailer, and the root's kind. What stands in the array is the reader's business.
bool isLogData(std::string_view bytes);

}  // namespace corvid::fleet
