// Hashes of texts that somebody else chooses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvid {

// SipHash-2-4 of the message.
std::uint64_t sipHash(const std::array<std::uint64_t, 2>& key, std::string_view message);

// For hash tables. The key is 16 random bytes, drawn once a process: whoever does not know them
// cannot choose texts that collide. Any thread.
struct KeyedHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const;
};

}  // namespace corvid
