#include <gtest/gtest.h>

#include <optional>

#include "backends/https/ListMatching.h"

namespace corvid {
namespace {

bool exact(const MatchList& list, std::optional<std::string> text, bool whitelist = true) {
  return matchExactStringWithList(list, text ? &*text : nullptr, whitelist);
}
bool inside(const MatchList& list, std::optional<std::string> text, bool whitelist = true) {
  return matchStringWithList(list, text ? &*text : nullptr, whitelist);
}

TEST(ListMatching, AnEmptyListYieldsTheWhitelistArgument) {
  for (const bool whitelist : {true, false}) {
    EXPECT_EQ(exact({}, "abc", whitelist), whitelist);
    EXPECT_EQ(inside({}, "abc", whitelist), whitelist);
    EXPECT_EQ(exact({}, std::nullopt, whitelist), whitelist);
    EXPECT_EQ(inside({}, std::nullopt, whitelist), whitelist);
  }
}

TEST(ListMatching, AnAbsentStringYieldsTheOppositeOfTheWhitelistArgument) {
  for (const bool whitelist : {true, false}) {
    EXPECT_EQ(exact({"abc"}, std::nullopt, whitelist), !whitelist);
    EXPECT_EQ(inside({"abc"}, std::nullopt, whitelist), !whitelist);
  }
}

TEST(ListMatching, AHitIsTrueAndAMissFalseWhateverTheWhitelistArgument) {
  for (const bool whitelist : {true, false}) {
    EXPECT_TRUE(exact({"abc"}, "abc", whitelist));
    EXPECT_FALSE(exact({"abc"}, "abd", whitelist));
    EXPECT_TRUE(inside({"abc"}, "xabcy", whitelist));
    EXPECT_FALSE(inside({"abc"}, "xabdy", whitelist));
  }
}

TEST(ListMatching, ExactComparesWholeStringsIgnoringCase) {
  EXPECT_TRUE(exact({"abc"}, "ABC"));
  EXPECT_TRUE(exact({"\u00c4bc"}, "\u00e4BC"));
  EXPECT_FALSE(exact({"abc"}, "xABCy"));
  EXPECT_FALSE(exact({"xABCy"}, "abc"));
  EXPECT_TRUE(exact({"one", "two"}, "Two"));
}

TEST(ListMatching, SubstringSearchesTheItemInTheStringOnly) {
  EXPECT_TRUE(inside({"abc"}, "xABCy"));
  EXPECT_FALSE(inside({"xABCy"}, "abc"));
  EXPECT_TRUE(inside({"one", "abc"}, "abc"));
}

TEST(ListMatching, AnEmptyItemMatchesNothing) {
  EXPECT_FALSE(exact({""}, ""));
  EXPECT_FALSE(inside({""}, "abc"));
  EXPECT_FALSE(inside({""}, ""));
}

TEST(ListMatching, TextsAreSplitAtCommasWithoutTrimming) {
  const std::string text = "a, b,,c";
  EXPECT_EQ(matchListFromText(&text), (MatchList{"a", " b", "", "c"}));
  EXPECT_FALSE(exact(matchListFromText(&text), "b"));
  EXPECT_TRUE(exact(matchListFromText(&text), " B"));
  const std::string empty;
  EXPECT_EQ(matchListFromText(&empty), MatchList{""}) << "present, and matches nothing";
  EXPECT_EQ(matchListFromText(nullptr), MatchList{});
}

TEST(ListMatching, ItemsThatAreNoStringsMatchNothingButMakeAList) {
  const Array items{1, "US", Array{"DE"}};
  EXPECT_EQ(matchListFromArray(&items), (MatchList{"", "US", ""}));
  const Array numbers{1};
  EXPECT_FALSE(inside(matchListFromArray(&numbers), "1"));
  EXPECT_EQ(matchListFromArray(nullptr), MatchList{});
}

}  // namespace
}  // namespace corvid
