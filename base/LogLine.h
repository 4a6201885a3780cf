// What of a text may stand in a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvid {

// A longer line is cut, never in the middle of a character, and says how much was left out.
inline constexpr std::size_t logLineLimit = 4096;

// The text as one line that shows what stands in it: control characters, line separators,
// characters that turn the direction of writing, and bytes that are no UTF-8 become escapes. Of a
// text of `bytes` bytes `text` may be the beginning alone, as long as it has logLineLimit.
std::string logLine(std::string_view text, std::size_t bytes);

}  // namespace corvid
