#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "tools/corvidctl/Client.h"

namespace corvid::ctl {
namespace {

Dictionary everyType() {
  Dictionary values{{"null", Value()},
                    {"yes", true},
                    {"no", false},
                    {"least", std::numeric_limits<std::int64_t>::min()},
                    {"real", -0.1},
                    {"date", Date{1700000000.5}},
                    {"text", "gr\u00fc\u00df \"dich\""},
                    {"zero", std::string("a\0b", 3)},
                    {"empty", ""},
                    {"data", Data{std::string("\0\xff", 2)}},
                    {"nothing", Data{}}};
  const Array array{1, "two", 3.5, Value(), Array{}, Dictionary{}};
  values.set("array", array);
  values.set("dictionary", Dictionary{{"inner", array}, {"\u00e9\u00e8", true}});
  return values;
}

// What the library says of a dictionary that it refuses.
std::string refusalOf(const Dictionary& dictionary) {
  try {
    clientDictionary(dictionary);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}

TEST(ClientValues, EveryTypeGoesOverAndBack) {
  EXPECT_EQ(dictionaryFrom(clientDictionary(everyType())), everyType());
  const Array array{everyType(), Array{everyType()}, Date{0}, Data{"x"}, Value()};
  EXPECT_EQ(arrayFrom(clientArray(array)), array);
}

TEST(ClientValues, EmptyContainersStayEmpty) {
  EXPECT_EQ(dictionaryFrom(clientDictionary({})), Dictionary());
  EXPECT_EQ(arrayFrom(clientArray({})), Array());
}

TEST(ClientValues, KeysKeepTheirOrder) {
  const Dictionary back = *dictionaryFrom(clientDictionary({{"b", 1}, {"a", 2}, {"c", 3}}));
  std::string order;
  for (const auto& [key, value] : back) order += key;
  EXPECT_EQ(order, "bac");
}

TEST(ClientValues, WhatTheLibraryRefusesIsAnErrorWithItsReason) {
  EXPECT_EQ(refusalOf({{"text", "\xff"}}), "text is not UTF-8");
  EXPECT_EQ(refusalOf({{"\xff", 1}}), "text is not UTF-8");
  EXPECT_EQ(refusalOf({{"inner", Array{Dictionary{{"text", "\xff"}}}}}), "text is not UTF-8");
  EXPECT_EQ(refusalOf({{"date", Date{std::numeric_limits<double>::infinity()}}}),
            "invalid argument");
}

TEST(ClientValues, AKeyWithAZeroByteIsNotCutShort) {
  EXPECT_EQ(refusalOf({{"inner", Dictionary{{std::string("a\0b", 3), 1}}}}),
            "a key has a zero byte");
}

}  // namespace
}  // namespace corvid::ctl
