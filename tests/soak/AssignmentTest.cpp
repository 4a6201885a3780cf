// What is missing is put under what was counted, in the one way that leaves least over.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/soak/Assignment.h"

namespace corvid::soak {
namespace {

TEST(Assignment, WhatHasItsWordCountedIsNotLeft) {
  EXPECT_EQ(unassigned({{{"a"}, 3}, {{"b"}, 2}}, {{"a", 3}, {"b", 5}}), 0);
  EXPECT_EQ(unassigned({{{"a"}, 3}}, {{"a", 2}}), 1);
  EXPECT_EQ(unassigned({{{"a"}, 3}}, {{"b", 9}}), 3);
  EXPECT_EQ(unassigned({}, {{"a", 1}}), 0);
}

TEST(Assignment, AWordIsLeftToThoseThatHaveNoOther) {
  EXPECT_EQ(unassigned({{{"a", "b"}, 5}, {{"a"}, 4}}, {{"a", 4}, {"b", 5}}), 0);
  // Through a group in between.
  EXPECT_EQ(
      unassigned({{{"a", "b"}, 2}, {{"a"}, 2}, {{"b", "c"}, 2}}, {{"a", 2}, {"b", 2}, {"c", 2}}),
      0);
}

// By Hall's theorem: what is left at least, over each set of words, are the groups that have no
// other words, less what was counted.
TEST(Assignment, AgreesWithCountingOverAllSetsOfWords) {
  constexpr unsigned words = 5;
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    std::map<Words, std::int64_t> missing;
    std::map<std::string, std::int64_t> counted;
    std::vector<unsigned> masks;
    std::vector<std::int64_t> sizes;
    for (int group = 0; group < 4; ++group) {
      const unsigned mask = 1 + static_cast<unsigned>(random()) % ((1U << words) - 1);
      Words names;
      for (unsigned word = 0; word < words; ++word)
        if (mask >> word & 1) names.insert(std::string(1, static_cast<char>('a' + word)));
      if (missing.contains(names)) continue;
      missing[names] = static_cast<std::int64_t>(random() % 6);
      masks.push_back(mask);
      sizes.push_back(missing[names]);
    }
    std::vector<std::int64_t> room;
    for (unsigned word = 0; word < words; ++word)
      room.push_back(counted[std::string(1, static_cast<char>('a' + word))] =
                         static_cast<std::int64_t>(random() % 6));
    std::int64_t left = 0;
    for (unsigned set = 0; set < 1U << words; ++set) {
      std::int64_t surplus = 0;
      for (std::size_t i = 0; i < masks.size(); ++i)
        if ((masks[i] & ~set) == 0) surplus += sizes[i];
      for (unsigned word = 0; word < words; ++word)
        if (set >> word & 1) surplus -= room[word];
      left = std::max(left, surplus);
    }
    ASSERT_EQ(unassigned(missing, counted), left) << "round " << round;
  }
}

}  // namespace
}  // namespace corvid::soak
