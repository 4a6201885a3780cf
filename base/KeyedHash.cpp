#include "base/KeyedHash.h"

#include <sys/random.h>

#include <bit>
#include <cstdlib>

namespace corvid {

namespace {

using Key = std::array<std::uint64_t, 2>;

// The last bytes of a message, fewer than eight, or eight of its middle; little-endian.
std::uint64_t wordOf(std::string_view bytes) {
  std::uint64_t word = 0;
  for (std::size_t at = bytes.size(); at-- > 0;)
    word = word << 8 | static_cast<unsigned char>(bytes[at]);
  return word;
}

struct State {
  std::uint64_t v0, v1, v2, v3;

  void round() {
    v0 += v1;
    v2 += v3;
    v1 = std::rotl(v1, 13) ^ v0;
    v3 = std::rotl(v3, 16) ^ v2;
    v0 = std::rotl(v0, 32) + v3;
    v2 += v1;
    v1 = std::rotl(v1, 17) ^ v2;
    v3 = std::rotl(v3, 21) ^ v0;
    v2 = std::rotl(v2, 32);
  }
  void take(std::uint64_t word) {
    v3 ^= word;
    round();
    round();
    v0 ^= word;
  }
};

// Without random bytes there would be no protection, and nobody would notice.
Key randomKey() {
  Key key;
  if (getentropy(key.data(), sizeof key) != 0) std::abort();
  return key;
}

}  // namespace

std::uint64_t sipHash(const Key& key, std::string_view message) {
  State state{key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d, key[0] ^ 0x6c7967656e657261,
              key[1] ^ 0x7465646279746573};
  const std::uint64_t length = message.size();
  for (; message.size() >= 8; message.remove_prefix(8)) state.take(wordOf(message.substr(0, 8)));
  state.take(length << 56 | wordOf(message));
  state.v2 ^= 0xff;
  for (int i = 0; i < 4; ++i) state.round();
  return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

std::size_t KeyedHash::operator()(std::string_view text) const {
  static const Key key = randomKey();
  return static_cast<std::size_t>(sipHash(key, text));
}

}  // namespace corvid
