// Looking at a text eight bytes at a time: short texts are the rule, and a loop over their bytes
// the cost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace corvid {

constexpr std::uint64_t everyByte(std::uint8_t byte) { return 0x0101010101010101u * byte; }

// Gives words to `take` in which each byte of the text stands at least once, and nothing else.
template <class Take>
void forEachWord(std::string_view text, Take take) {
  const char* const from = text.data();
  const std::size_t size = text.size();
  const auto load = [from]<class Word>(Word word, std::size_t at) -> std::uint64_t {
    std::memcpy(&word, from + at, sizeof word);
    return word;
  };
  if (size >= 8) {
    for (std::size_t at = 0; at + 8 < size; at += 8) take(load(std::uint64_t(), at));
    take(load(std::uint64_t(), size - 8));
  } else if (size >= 4) {
    take(load(std::uint32_t(), 0) | load(std::uint32_t(), size - 4) << 32);
  } else if (size > 0) {
    const std::uint64_t first = load(std::uint8_t(), 0);
    take((everyByte(1) * first & ~std::uint64_t{0xffff}) | load(std::uint8_t(), size / 2) |
         load(std::uint8_t(), size - 1) << 8);
  }
}

}  // namespace corvid
