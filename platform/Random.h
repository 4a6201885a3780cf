// Random numbers. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Text.h"

namespace corvid {

using UUIDBytes = std::array<std::uint8_t, 16>;

class Random {
 public:
  virtual ~Random() = default;
  // A new random (version 4) UUID.
  virtual UUIDBytes uuid() = 0;
  // The next draw in [0, 1) of the process's 48-bit linear congruential generator, which is seeded
  // once at start from random bytes.
  virtual double uniform() = 0;
};

// The canonical 36-character text: upper-case hexadecimal in groups of 8, 4, 4, 4 and 12.
inline std::string uuidText(const UUIDBytes& uuid) {
  std::string text =
      upperCaseHexadecimal({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
  for (const std::size_t dash : {8u, 13u, 18u, 23u}) text.insert(dash, 1, '-');
  return text;
}

}  // namespace corvid
