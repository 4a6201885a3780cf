#include <gtest/gtest.h>

#include <optional>

#include "backends/CorvidBackend.h"
#include "backends/https/EventFilters.h"
#include "base/Reading.h"
#include "base/Text.h"

namespace corvid {
namespace {

Dictionary filter(const char* key, const char* action, std::optional<int> method = std::nullopt,
                  std::optional<int> status = std::nullopt) {
  Dictionary item{{"key", key}, {"action", action}};
  if (method) item.set("method", *method);
  if (status) item.set("status", *status);
  return item;
}

Dictionary event(int method, int status) {
  return {{"_method", method}, {"_status", status}, {"a", "1"}, {"b", "2"}};
}

Dictionary filtered(const Array& filters, Dictionary record) {
  EventFilters(filters).apply(record);
  return record;
}

TEST(EventFilters, WithoutFiltersARecordStaysAsItIs) {
  Dictionary record = event(1, 2);
  EventFilters().apply(record);
  EXPECT_EQ(record, event(1, 2));
}

TEST(EventFilters, AreAsManyAsTheArrayHasItems) {
  EXPECT_EQ(EventFilters().numberOfFilters(), 0u);
  EXPECT_EQ(EventFilters(Array{}).numberOfFilters(), 0u);
  EXPECT_EQ(
      EventFilters(Array{filter("a", "keep"), filter("A", "remove"), "none"}).numberOfFilters(),
      3u);
}

TEST(EventFilters, RemoveTakesTheKeyAway) {
  EXPECT_EQ(filtered({filter("a", "remove")}, event(1, 2)),
            (Dictionary{{"_method", 1}, {"_status", 2}, {"b", "2"}}));
}

TEST(EventFilters, Sha256PutsTheDigestInTheValuesPlace) {
  EXPECT_EQ(
      filtered({filter("userName", "sha256")}, {{"userName", "abc"}, {"b", "2"}}),
      (Dictionary{{"userName", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
                  {"b", "2"}}));
}

TEST(EventFilters, WhatIsNoTextIsDigestedAsItsText) {
  const auto digestOf = [](Value value) {
    const Dictionary record = filtered({filter("a", "sha256")}, {{"a", std::move(value)}});
    return *stringAt(record, "a");
  };
  EXPECT_EQ(digestOf(12), CorvidBackend::convertIntoSHA256("12"));
  EXPECT_EQ(digestOf(-0.5), CorvidBackend::convertIntoSHA256("-0.5"));
  EXPECT_EQ(digestOf(true), CorvidBackend::convertIntoSHA256("1"));
  EXPECT_EQ(digestOf(Date{0}), CorvidBackend::convertIntoSHA256("1970-01-01 00:00:00 +0000"));
  EXPECT_EQ(digestOf(Array{1, "x"}), CorvidBackend::convertIntoSHA256("[1,\"x\"]"));
}

TEST(EventFilters, AnyOtherActionKeeps) {
  for (const char* action : {"keep", "", "Remove", "SHA256", "remove "})
    EXPECT_EQ(filtered({filter("a", action)}, event(1, 2)), event(1, 2)) << action;
  EXPECT_EQ(filtered({Dictionary{{"key", "a"}}}, event(1, 2)), event(1, 2)) << "no action";
  EXPECT_EQ(filtered({Dictionary{{"key", "a"}, {"action", 1}}}, event(1, 2)), event(1, 2));
}

TEST(EventFilters, KeysAreComparedIgnoringCase) {
  EXPECT_EQ(filtered({filter("userNAME", "remove")}, {{"UserName", 1}, {"username", 2}}),
            Dictionary{});
  EXPECT_EQ(filtered({filter("\u00c4rger", "remove")}, {{"\u00e4RGER", 1}}), Dictionary{});
  EXPECT_EQ(filtered({filter("a-very-long-key-with-one-letter-X-inside", "remove")},
                     {{"a-very-long-key-with-one-letter-x-inside", 1},
                      {"a-very-long-key-with-one-letter-y-inside", 2}}),
            (Dictionary{{"a-very-long-key-with-one-letter-y-inside", 2}}));
}

TEST(EventFilters, ALetterOutsideASCIIMayEqualOneInside) {
  const std::string kelvin = "\u212Aey";  // folds to "key"
  ASSERT_TRUE(equalsIgnoringCase(kelvin, "KEY"));
  EXPECT_EQ(filtered({filter("key", "remove")}, {{kelvin, 1}}), Dictionary{});
  EXPECT_EQ(filtered({filter(kelvin.c_str(), "remove")}, {{"Key", 1}}), Dictionary{});
}

TEST(EventFilters, CharactersThatOnlyLookLikeTheOtherCaseDiffer) {
  EXPECT_EQ(filtered({filter("a@", "remove")}, {{"a`", 1}}), (Dictionary{{"a`", 1}}));
}

TEST(EventFilters, MethodAndStatusMustBothFit) {
  const Dictionary without{{"_method", 3}, {"_status", 4}, {"b", "2"}};
  EXPECT_EQ(filtered({filter("a", "remove", 3)}, event(3, 4)), without);
  EXPECT_EQ(filtered({filter("a", "remove", 3)}, event(4, 4)), event(4, 4));
  EXPECT_EQ(filtered({filter("a", "remove", std::nullopt, 4)}, event(3, 4)), without);
  EXPECT_EQ(filtered({filter("a", "remove", std::nullopt, 4)}, event(3, 5)), event(3, 5));
  EXPECT_EQ(filtered({filter("a", "remove", 3, 4)}, event(3, 4)), without);
  EXPECT_EQ(filtered({filter("a", "remove", 3, 4)}, event(3, 5)), event(3, 5));
  EXPECT_EQ(filtered({filter("a", "remove", 3, 4)}, event(2, 4)), event(2, 4));
}

TEST(EventFilters, AnyNegativeNumberFitsEverything) {
  EXPECT_EQ(filtered({filter("a", "remove", -7, -1)}, event(3, 4)),
            (Dictionary{{"_method", 3}, {"_status", 4}, {"b", "2"}}));
}

TEST(EventFilters, WithoutMethodAndStatusOnlyFiltersForZeroOrAnyFit) {
  const Dictionary userInfo{{"a", "1"}};
  EXPECT_EQ(filtered({filter("a", "remove")}, userInfo), Dictionary{});
  EXPECT_EQ(filtered({filter("a", "remove", 0, 0)}, userInfo), Dictionary{});
  EXPECT_EQ(filtered({filter("a", "remove", 1)}, userInfo), userInfo);
  EXPECT_EQ(filtered({filter("a", "remove", 0, 1)}, userInfo), userInfo);
}

TEST(EventFilters, MethodsAndStatusesAreThirtyTwoBitIntegers) {
  const Dictionary without{{"_method", 3}, {"_status", 4}, {"b", "2"}};
  const auto removesFor = [](Value method) {
    return Array{Dictionary{{"key", "a"}, {"action", "remove"}, {"method", std::move(method)}}};
  };
  EXPECT_EQ(filtered(removesFor(std::int64_t{0x1'0000'0003}), event(3, 4)), without);
  EXPECT_EQ(filtered(removesFor(3.9), event(3, 4)), without);
  EXPECT_EQ(filtered(removesFor("3"), event(3, 4)), without);
  EXPECT_EQ(filtered(removesFor(true), event(3, 4)), event(3, 4));
  EXPECT_EQ(filtered(removesFor(-0.5), event(3, 4)), event(3, 4)) << "0, not any";
}

TEST(EventFilters, ARecordsMethodOfAnotherTypeIsZero) {
  const Array filters{filter("a", "remove", 0)};
  for (const Value& method : {Value("x"), Value(Array{3}), Value(Date{3}), Value()})
    EXPECT_EQ(filtered(filters, {{"_method", method}, {"a", "1"}}),
              (Dictionary{{"_method", method}}));
  EXPECT_EQ(filtered(filters, {{"_method", "3"}, {"a", "1"}}),
            (Dictionary{{"_method", "3"}, {"a", "1"}}));
}

TEST(EventFilters, OnlyTheFirstFilterThatFitsCounts) {
  const Dictionary without{{"_method", 1}, {"_status", 2}, {"b", "2"}};
  EXPECT_EQ(filtered({filter("A", "keep"), filter("a", "remove")}, event(1, 2)), event(1, 2));
  EXPECT_EQ(filtered({filter("a", "keep", 9), filter("A", "remove")}, event(1, 2)), without);
  EXPECT_EQ(filtered({filter("a", "remove"), filter("a", "sha256")}, event(1, 2)), without);
}

TEST(EventFilters, MethodAndStatusAreReadBeforeTheyAreRemoved) {
  EXPECT_EQ(filtered({filter("_method", "remove"), filter("_status", "remove"),
                      filter("a", "remove", 1, 2)},
                     event(1, 2)),
            (Dictionary{{"b", "2"}}));
}

TEST(EventFilters, AnItemWithoutAKeyOrOfAnotherTypeMatchesNothing) {
  EXPECT_EQ(filtered({Dictionary{{"action", "remove"}}, "a", 7,
                      Dictionary{{"key", 1}, {"action", "remove"}}},
                     event(1, 2)),
            event(1, 2));
}

// The rule as it is written down: the first filter in the array that fits.
FilterAction firstMatch(const Array& filters, std::string_view key, int method, int status) {
  for (const Value& item : filters) {
    const Dictionary& entry = *item.dictionary();
    const auto wanted = [&](const char* name) { return integerAt(entry, name).value_or(-1); };
    if (!equalsIgnoringCase(*stringAt(entry, "key"), key)) continue;
    if (wanted("method") >= 0 && wanted("method") != method) continue;
    if (wanted("status") >= 0 && wanted("status") != status) continue;
    const std::string& action = *stringAt(entry, "action");
    if (action == "remove") return FilterAction::remove;
    return action == "sha256" ? FilterAction::digest : FilterAction::keep;
  }
  return FilterAction::keep;
}

TEST(EventFilters, PreparedFiltersDecideAsAScanWould) {
  const std::vector<const char*> keys{"a", "A", "Ab", "ab", "b", "\u00c4", "\u00e4"};
  const std::vector<const char*> actions{"keep", "remove", "sha256"};
  std::uint32_t random = 1;
  const auto draw = [&random](std::uint32_t below) {
    random = random * 1664525 + 1013904223;
    return (random >> 8) % below;
  };
  const auto drawNumber = [&] { return static_cast<int>(draw(3)) - 1; };
  for (int round = 0; round < 200; ++round) {
    Array filters;
    for (int i = 0; i < 12; ++i)
      filters.emplace_back(filter(keys[draw(7)], actions[draw(3)], drawNumber(), drawNumber()));
    const EventFilters prepared(filters);
    for (const int method : {0, 1}) {
      for (const int status : {0, 1}) {
        Dictionary record{{"_method", method}, {"_status", status}};
        Dictionary expected = record;
        for (const char* key : keys) {
          record.set(key, key);
          const FilterAction action = firstMatch(filters, key, method, status);
          if (action == FilterAction::keep) expected.set(key, key);
          if (action == FilterAction::digest)
            expected.set(key, CorvidBackend::convertIntoSHA256(key));
        }
        prepared.apply(record);
        ASSERT_EQ(record, expected) << "round " << round;
      }
    }
  }
}

}  // namespace
}  // namespace corvid
