// What people write down has keys and words from closed lists.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <span>
#include <string>
#include <string_view>

#include "base/NearestWord.h"
#include "base/Value.h"
#include "tools/Arguments.h"

namespace corvid::storebag {

// Says that `word` is no such thing, and which known one is nearest.
inline std::string unknownWord(std::string_view kind, std::string_view word,
                               std::span<const std::string_view> known) {
  const auto nearest = nearestWord(word, known);
  return nearest ? fmt::format("unknown {} \"{}\": did you mean \"{}\"?", kind, word, *nearest)
                 : fmt::format("unknown {} \"{}\"; there are {}", kind, word,
                               fmt::join(known.begin(), known.end(), ", "));
}

// A tools::InputError for the first key that is not known.
inline void expectKnownKeys(const Dictionary& object, std::string_view kind,
                            std::span<const std::string_view> known) {
  for (const auto& [key, value] : object)
    if (std::ranges::find(known, key) == known.end())
      throw tools::InputError(unknownWord(kind, key, known));
}

}  // namespace corvid::storebag
