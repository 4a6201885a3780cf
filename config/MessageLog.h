// The local, human-readable record of forwarded messages.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <string_view>

namespace corvid {

// In a file that has grown to this, whoever has written most of it gives up the older half of his
// lines: clients decide how much is written, and none of them wipes another's.
inline constexpr std::size_t mostMessageLogBytes = std::size_t{64} << 20;

// Appends one dated line to the daemon's current message log file, starting a new file each day
// and removing older ones. It counts as the acting user's. Failures are logged and reported to
// nobody; where space or descriptors are short, the line alone is lost. Nothing happens where the
// deployment does without the log. Any thread.
void writeToLogFile(std::string_view message);

template <class... A>
void writeToLogFile(fmt::format_string<const A&...> format,
                    const A&... arguments) requires(sizeof...(A) > 0) {
  writeToLogFile(std::string_view(fmt::format(format, arguments...)));
}

}  // namespace corvid
