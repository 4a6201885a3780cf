// Which values of a storebag are others than they were.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/Value.h"

namespace corvid::storebag {

// Null where there is no value on that side.
struct Change {
  std::string path;  // "release.httpPost.clients[0].post_url"; of what is gone, where it was
  Value old{};
  Value now{};
};

// How many items two arrays have in common at their beginnings, and behind these at their ends.
struct CommonEnds {
  CommonEnds(const Array& old, const Array& now);
  std::size_t first = 0;
  std::size_t last = 0;
};

// In the order of their places, each as deep as both sides go. Items of an array are compared by
// their places between what is the same at its beginning and at its end.
std::vector<Change> changesBetween(const Dictionary& old, const Dictionary& now);

}  // namespace corvid::storebag
