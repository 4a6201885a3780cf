// The word that a misspelt one was meant to be.
#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace corvid {

// Of the known words the one with the fewest letters to insert, drop or replace and neighbours to
// exchange, whatever their case; nothing where that is more than a third of the word's own.
std::optional<std::string_view> nearestWord(std::string_view word,
                                            std::span<const std::string_view> known);

}  // namespace corvid
