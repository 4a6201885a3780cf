// What no request may exceed, whatever the configuration says.
#pragma once

#include <cstddef>

namespace corvid::fleet::limits {

inline constexpr std::size_t mebibyte = std::size_t{1} << 20;

// A post or log data, as it is sent and unpacked.
inline constexpr std::size_t sentBytes = 8 * mebibyte;
inline constexpr std::size_t unpackedBytes = 64 * mebibyte;
// A file of a client; the daemon takes none that is larger. A compressed one that does not compress
// is a little larger.
inline constexpr std::size_t fileBytes = 256 * mebibyte;
inline constexpr std::size_t sentFileBytes = fileBytes + mebibyte;

// Objects and arrays within each other, the outermost counted.
inline constexpr std::size_t nesting = 32;
// Of one object. It bounds what the check for keys that stand twice remembers.
inline constexpr std::size_t members = 65536;
// Of one post; each becomes a row, which is larger than the least event.
inline constexpr std::size_t events = 65536;
// Of a number's text, and of its exponent. What is within both fits databases too.
inline constexpr std::size_t numberBytes = 1024;
inline constexpr std::size_t exponentDigits = 4;

// Request line and headers together.
inline constexpr std::size_t headBytes = 16384;
// Of one X-CVD header.
inline constexpr std::size_t headerValueBytes = 1024;
// Of the query of an upload.
inline constexpr std::size_t queryBytes = 4096;

}  // namespace corvid::fleet::limits
