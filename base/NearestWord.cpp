#include "base/NearestWord.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <vector>

namespace corvid {

namespace {

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Row by row of the usual table.
std::size_t editsBetween(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  std::vector<std::size_t> above = row;
  std::vector<std::size_t> secondAbove = row;
  const auto isSame = [&](std::size_t i, std::size_t j) { return lowered(a[i]) == lowered(b[j]); };
  for (std::size_t i = 0; i < a.size(); ++i) {
    secondAbove.swap(above);
    above.swap(row);
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = above[j] + (isSame(i, j) ? 0 : 1);
      row[j + 1] = std::min({replaced, row[j] + 1, above[j + 1] + 1});
      if (i > 0 && j > 0 && isSame(i, j - 1) && isSame(i - 1, j))
        row[j + 1] = std::min(row[j + 1], secondAbove[j - 1] + 1);
    }
  }
  return row.back();
}

}  // namespace

std::optional<std::string_view> nearestWord(std::string_view word,
                                            std::span<const std::string_view> known) {
  constexpr std::size_t longest = 200;  // past it nobody meant any of them
  if (word.size() > longest) return std::nullopt;
  std::optional<std::string_view> nearest;
  std::size_t fewest = word.size() / 3 + 1;
  for (const std::string_view candidate : known)
    if (const std::size_t edits = editsBetween(word, candidate); edits < fewest) {
      fewest = edits;
      nearest = candidate;
    }
  return nearest;
}

}  // namespace corvid
