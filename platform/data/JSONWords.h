// What JSON does to a text, seen eight bytes at a time as base/TextWords.h has them; for its
// writers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/TextWords.h"

namespace corvid {

constexpr std::size_t numberRoom = 32;  // enough for any number

// Marks, in the high bits, whether some byte is below `limit` (at most 128) or above 127.
constexpr std::uint64_t marksBelow(std::uint64_t bytes, std::uint8_t limit) {
  return (bytes - everyByte(limit)) | bytes;
}

// Marks, in the high bits, whether some byte is no ASCII or is escaped in JSON.
constexpr std::uint64_t marksSpecial(std::uint64_t bytes) {
  return marksBelow(bytes, 0x20) | marksBelow(bytes ^ everyByte('"'), 1) |
         marksBelow(bytes ^ everyByte('\\'), 1);
}

// Whether none of the words that these marks are of has such a byte.
constexpr bool isPlain(std::uint64_t marks) { return (marks & everyByte(0x80)) == 0; }

}  // namespace corvid
