// Keys that collide in a table by the standard library's hash, as a client can work them out.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace corvid {

// The library hashes a text of eight bytes by steps that can each be undone.
class CollidingKeys {
 public:
  // So many ASCII keys whose hashes end in the same twenty bits.
  static std::vector<std::string> make(std::size_t count) {
    std::vector<std::string> keys;
    for (std::uint64_t high = 1; keys.size() < count; ++high) {
      const std::string key = keyFor(high << 20);
      bool isText = true;
      for (const char c : key) isText = isText && c >= ' ' && c <= '~';
      if (isText) keys.push_back(key);
    }
    return keys;
  }

 private:
  static constexpr std::uint64_t multiplier = 0xc6a4a7935bd1e995;
  static constexpr std::uint64_t seed = 0xc70f6907;

  static constexpr std::uint64_t inverse() {
    std::uint64_t x = multiplier;
    for (int i = 0; i < 6; ++i) x *= 2 - multiplier * x;
    return x;
  }
  static std::uint64_t unmixed(std::uint64_t v) { return v ^ (v >> 47); }

  static std::string keyFor(std::uint64_t hash) {
    hash = unmixed(unmixed(hash) * inverse()) * inverse();
    const std::uint64_t data = hash ^ seed ^ (8 * multiplier);
    const std::uint64_t word = unmixed(data * inverse()) * inverse();
    std::string key(8, '\0');
    std::memcpy(key.data(), &word, key.size());
    return key;
  }
};

}  // namespace corvid
