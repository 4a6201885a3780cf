// Numbers in little-endian byte order, at any address.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <type_traits>

namespace corvid {

template <class T>
T loadLittle(const char* bytes) {
  static_assert(std::is_arithmetic_v<T>);
  std::array<char, sizeof(T)> ordered;
  std::memcpy(ordered.data(), bytes, sizeof(T));
  if constexpr (std::endian::native == std::endian::big) std::ranges::reverse(ordered);
  return std::bit_cast<T>(ordered);
}

template <class T>
void storeLittle(char* bytes, T value) {
  static_assert(std::is_arithmetic_v<T>);
  auto ordered = std::bit_cast<std::array<char, sizeof(T)>>(value);
  if constexpr (std::endian::native == std::endian::big) std::ranges::reverse(ordered);
  std::memcpy(bytes, ordered.data(), sizeof(T));
}

}  // namespace corvid
