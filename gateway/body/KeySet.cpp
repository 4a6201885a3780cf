#include "gateway/body/KeySet.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"

namespace corvid::fleet {

namespace {

// Above this many keys they are sorted instead of compared each with each.
constexpr std::size_t few = 40;

struct Seed {
  std::uint64_t a, b;
};

// Drawn once a process, so that nobody can choose keys whose hashes are the same.
const Seed& seed() {
  static const Seed drawn = [] {
    std::random_device device;
    const auto word = [&] { return std::uint64_t{device()} << 32 | device() | 1; };
    return Seed{word(), word()};
  }();
  return drawn;
}

std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{a} * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

template <class Word>
std::uint64_t load(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// All of at most 16 bytes, some of them twice.
std::pair<std::uint64_t, std::uint64_t> ends(const char* from, std::size_t size) {
  if (size >= 8) return {load<std::uint64_t>(from), load<std::uint64_t>(from + size - 8)};
  if (size >= 4) return {load<std::uint32_t>(from), load<std::uint32_t>(from + size - 4)};
  if (size == 0) return {0, 0};
  return {load<std::uint8_t>(from) << 8 | load<std::uint8_t>(from + size / 2),
          load<std::uint8_t>(from + size - 1)};
}

std::uint64_t hashOf(std::string_view key) {
  const Seed& secret = seed();
  std::uint64_t hash = secret.a ^ key.size();
  const char* from = key.data();
  std::size_t left = key.size();
  for (; left > 16; from += 16, left -= 16)
    hash = mixed(load<std::uint64_t>(from) ^ secret.b, load<std::uint64_t>(from + 8) ^ hash);
  const auto [low, high] = ends(from, left);
  return mixed(mixed(low ^ secret.b, high ^ hash), secret.a);
}

}  // namespace

KeySet::KeySet() {
  _keys.reserve(few);
  _tags.reserve(few);
}

void KeySet::add(std::string_view text, std::size_t at, std::size_t size, bool hasEscapes) {
  const std::string_view key = text.substr(at, size);
  const std::uint64_t hash = hasEscapes ? hashOf(unescaped(key)) : hashOf(key);
  _keys.push_back({hash, static_cast<std::uint32_t>(at),
                   static_cast<std::uint32_t>(size & 0x7fffffff), hasEscapes});
  _tags.push_back(static_cast<std::uint32_t>(hash));
}

std::optional<std::size_t> KeySet::closeObject(std::string_view text) {
  const std::size_t first = _firsts.back();
  const auto found =
      _keys.size() - first <= few ? twiceAmongFew(text, first) : twiceAmongMany(text, first);
  _firsts.pop_back();
  _keys.resize(first);
  _tags.resize(first);
  return found;
}

bool KeySet::areSame(std::string_view text, const Key& one, const Key& other) {
  const std::string_view a = text.substr(one.at, one.size);
  const std::string_view b = text.substr(other.at, other.size);
  return one.hasEscapes || other.hasEscapes ? unescaped(a) == unescaped(b) : a == b;
}

std::optional<std::size_t> KeySet::twiceAmongFew(std::string_view text, std::size_t first) const {
  const std::uint32_t* const tags = _tags.data() + first;
  const std::size_t count = _tags.size() - first;
  for (std::size_t later = 1; later < count; ++later) {
    // Without a branch, so that several are compared at once.
    std::uint32_t matches = 0;
    for (std::size_t earlier = 0; earlier < later; ++earlier)
      matches |= static_cast<std::uint32_t>(tags[earlier] == tags[later]);
    if (matches == 0) [[likely]]
      continue;
    for (std::size_t earlier = 0; earlier < later; ++earlier)
      if (areSame(text, _keys[first + earlier], _keys[first + later]))
        return _keys[first + later].at;
  }
  return std::nullopt;
}

std::optional<std::size_t> KeySet::twiceAmongMany(std::string_view text, std::size_t first) {
  const auto begin = _keys.begin() + static_cast<std::ptrdiff_t>(first);
  std::sort(begin, _keys.end(), [](const Key& a, const Key& b) { return a.hash < b.hash; });
  for (auto run = begin; run != _keys.end();) {
    const auto end =
        std::find_if(run, _keys.end(), [&](const Key& k) { return k.hash != run->hash; });
    for (auto later = run; later != end; ++later)
      for (auto earlier = run; earlier != later; ++earlier)
        if (areSame(text, *earlier, *later)) return std::max(earlier->at, later->at);
    run = end;
  }
  return std::nullopt;
}

std::string unescaped(std::string_view string) {
  std::string text;
  text.reserve(string.size());
  for (std::size_t at = 0; at < string.size(); ++at) {
    if (string[at] != '\\') {
      text += string[at];
      continue;
    }
    const auto unit = [&](std::size_t from) {
      return char32_t{numberFrom<std::uint16_t>(string.substr(from, 4), 16).value_or(0xFFFD)};
    };
    switch (const char escape = string[++at]) {
      case 'b': text += '\b'; break;
      case 'f': text += '\f'; break;
      case 'n': text += '\n'; break;
      case 'r': text += '\r'; break;
      case 't': text += '\t'; break;
      case 'u': {
        char32_t character = unit(at + 1);
        at += 4;
        if (character >= 0xD800 && character < 0xDC00) {
          character = 0x10000 + ((character - 0xD800) << 10) + (unit(at + 3) - 0xDC00);
          at += 6;
        }
        appendUTF8(text, character);
        break;
      }
      default: text += escape;
    }
  }
  return text;
}

}  // namespace corvid::fleet
