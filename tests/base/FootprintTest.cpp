#include <gtest/gtest.h>

#include "base/Value.h"

namespace corvid {
namespace {

const std::string longText(1000, 'x');

std::size_t footprintOf(Value value) { return footprint({{"key", std::move(value)}}); }

TEST(Footprint, OfNothingIsNothing) { EXPECT_EQ(footprint({}), 0u); }

TEST(Footprint, GrowsWithEveryEntry) {
  EXPECT_GE(footprintOf(1), sizeof(Dictionary::Entry));
  EXPECT_GE(footprint({{"a", 1}, {"b", 2}}), 2 * sizeof(Dictionary::Entry));
}

TEST(Footprint, CountsLongKeysTextsAndData) {
  const std::size_t plain = footprintOf(1);
  EXPECT_GE(footprint({{longText, 1}}), plain + 900);
  EXPECT_GE(footprintOf(longText), plain + 1000);
  EXPECT_GE(footprintOf(Data{longText}), plain + 1000);
}

TEST(Footprint, CountsWhatIsWithin) {
  EXPECT_GE(footprintOf(Array{Array{longText}, longText}), 2000u);
  EXPECT_GE(footprintOf(Dictionary{{"inner", Dictionary{{"text", longText}}}}), 1000u);
}

TEST(Footprint, StaysNearTheTruthForASmallRecord) {
  Dictionary record;
  for (int i = 0; i < 20; ++i) record.set("_some_key_" + std::to_string(i), i);
  EXPECT_LT(footprint(record), 20 * (sizeof(Dictionary::Entry) + 40));
}

}  // namespace
}  // namespace corvid
