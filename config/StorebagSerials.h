// The highest serial that this device has seen of each storebag name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Value.h"

namespace corvid {

// They stand in "Storebags/serials.plist" below the daemon's own folder, by name, and outlast it
// whether or not storebags are kept. Threads: one call at a time.

// The integer "serial" of a whole storebag; 0 without one.
std::int64_t serialOf(const Dictionary& storebag);

// 0 where none was seen.
std::int64_t highestSerialSeen(const std::string& name);
// One that is not higher changes nothing. A failure to write is one error line; it then
// does not count.
void noteSerial(const std::string& name, std::int64_t serial);

}  // namespace corvid
