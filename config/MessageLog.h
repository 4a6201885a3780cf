// The local, human-readable record of forwarded messages.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <string_view>

namespace corvid {

// A file that has grown to this gives way to a new one before its day is over: clients decide how
// much is written.
inline constexpr std::size_t mostMessageLogBytes = std::size_t{64} << 20;

// Appends one dated line to the daemon's current message log file, starting a new file each day
// and removing older ones. Failures are logged and reported to nobody. Any thread.
void writeToLogFile(std::string_view message);

template <class... A>
void writeToLogFile(fmt::format_string<const A&...> format,
                    const A&... arguments) requires(sizeof...(A) > 0) {
  writeToLogFile(std::string_view(fmt::format(format, arguments...)));
}

}  // namespace corvid
