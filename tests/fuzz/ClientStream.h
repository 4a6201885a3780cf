// A client's side of one connection as the bytes of a fuzz input: what it writes in one go, and
// which descriptor travels with that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::fuzz {

// What a descriptor is that a client passes.
enum class Passed : std::uint8_t {
  nothing,
  file,
  emptyFile,
  largeFile,
  writableFile,
  pipe,
  folder
};
inline constexpr std::uint8_t kindsOfPassed = 7;

struct ClientWrite {
  Passed passed = Passed::nothing;
  std::string bytes;
};

// Each write is three bytes for its size, lowest first, one for the descriptor, and the bytes
// themselves. Whatever the input is, it can be read: the last write ends with the input, and kinds
// of descriptors start anew behind the last one.
inline std::vector<ClientWrite> readClientStream(std::string_view input) {
  constexpr std::size_t head = 4;
  std::vector<ClientWrite> writes;
  while (input.size() > head) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(input[i]); };
    const std::size_t size = byte(0) + (std::size_t{byte(1)} << 8) + (std::size_t{byte(2)} << 16);
    const auto passed = static_cast<Passed>(byte(3) % kindsOfPassed);
    input.remove_prefix(head);
    writes.push_back({passed, std::string(input.substr(0, size))});
    input.remove_prefix(writes.back().bytes.size());
  }
  return writes;
}

inline std::string clientStream(const std::vector<ClientWrite>& writes) {
  std::string stream;
  for (const ClientWrite& write : writes) {
    for (const int shift : {0, 8, 16})
      stream += static_cast<char>(static_cast<std::uint8_t>(write.bytes.size() >> shift));
    stream += static_cast<char>(write.passed);
    stream += write.bytes;
  }
  return stream;
}

}  // namespace corvid::fuzz
