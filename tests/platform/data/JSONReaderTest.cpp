#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "platform/data/JSON.h"

namespace corvid {
namespace {

Value read(std::string_view text) {
  Result<Value> result = parseJSON(text);
  EXPECT_TRUE(result) << text << ": " << result.failure().message;
  return result ? std::move(result).value() : Value();
}

std::string failureOf(std::string_view text) {
  const Result<Value> result = parseJSON(text);
  EXPECT_FALSE(result) << text;
  return result ? "" : result.failure().message;
}

TEST(JSONReader, ReadsEveryType) {
  EXPECT_EQ(read(R"( {"n":null,"t":true,"f":false,"i":-3,"r":2.5,"s":"x","a":[1,[]],"o":{}} )"),
            Value(Dictionary{{"n", Value()},
                             {"t", true},
                             {"f", false},
                             {"i", -3},
                             {"r", 2.5},
                             {"s", "x"},
                             {"a", Array{1, Array{}}},
                             {"o", Dictionary{}}}));
}

TEST(JSONReader, EntriesKeepTheirOrder) {
  const Value value = read(R"({"z":1,"a":2,"m":3})");
  std::string keys;
  for (const auto& entry : *value.dictionary()) keys += entry.key;
  EXPECT_EQ(keys, "zam");
}

TEST(JSONReader, TheLastOfEqualKeysWins) {
  EXPECT_EQ(read(R"({"k":1,"l":2,"k":3})"), Value(Dictionary{{"k", 3}, {"l", 2}}));
}

TEST(JSONReader, WholeNumbersThatFitAreIntegersOthersReals) {
  EXPECT_EQ(read("9223372036854775807"), Value(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(read("-9223372036854775808"), Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(read("9223372036854775808"), Value(9223372036854775808.0));
  EXPECT_EQ(read("18446744073709551615"), Value(18446744073709551616.0));
  EXPECT_EQ(read("-9223372036854775809"), Value(-9223372036854775808.0));
  EXPECT_EQ(read("1.0"), Value(1.0));
  EXPECT_EQ(read("1e2"), Value(100.0));
  EXPECT_EQ(read("4294967295"), Value(4294967295));
  EXPECT_EQ(read("-2147483649"), Value(-2147483649));
}

TEST(JSONReader, RealsReadBackExactlyAsTheyWereWritten) {
  std::uint64_t bits = 1;
  for (int i = 0; i < 10'000; ++i) {
    bits = bits * 6364136223846793005u + 1442695040888963407u;
    const double number = std::bit_cast<double>(bits);
    if (!std::isfinite(number)) continue;
    const auto text = writeJSON(Dictionary{{"k", number}});
    ASSERT_TRUE(text);
    EXPECT_EQ(read(*text), Value(Dictionary{{"k", number}})) << *text;
  }
}

TEST(JSONReader, NumbersOutOfRangeAreRefused) {
  EXPECT_EQ(read("1.7976931348623157e308"), Value(std::numeric_limits<double>::max()));
  EXPECT_EQ(read("5e-324"), Value(5e-324));
  EXPECT_EQ(read("0e259"), Value(0.0));
  for (const char* text : {"1.797693134862316e308", "1.7977931348623157e308", "-1.8e308", "1e-400"})
    EXPECT_EQ(failureOf(text).find("Number out of range at byte"), 0u) << text;
}

TEST(JSONReader, EscapesBecomeTheirCharacters) {
  EXPECT_EQ(read(R"("\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00")"),
            Value("\"\\/\b\f\n\r\t\u00e9\U0001F600"));
  EXPECT_EQ(read(R"("a\u0000b")"), Value(std::string("a\0b", 3)));
  EXPECT_EQ(read(R"({"a\u0000\n":1})"), Value(Dictionary{{std::string("a\0\n", 3), 1}}));
}

TEST(JSONReader, SurrogatesWithoutTheirOtherHalfAreRefused) {
  for (const char* text :
       {R"("\ude00")", R"("\ud83d")", R"("\ud83dx")", R"("\ud83d\ud83d")", R"({"\ude00":1})"})
    EXPECT_EQ(failureOf(text).find("The surrogate pair in string is invalid at byte"), 0u) << text;
}

TEST(JSONReader, FailuresSayWhatIsWrongAndAtWhichByte) {
  EXPECT_EQ(failureOf(""), "The document is empty at byte 0");
  EXPECT_EQ(failureOf("[1,]"), "Invalid value at byte 3");
  EXPECT_EQ(failureOf(R"({"a" 1})"), "Missing a colon after a name of object member at byte 5");
  EXPECT_EQ(failureOf("\"\xff\""), "Invalid encoding in string at byte 1");
  EXPECT_EQ(failureOf("1e999"), "Number too big to be stored in double at byte 0");
}

TEST(JSONReader, ContentAfterTheValueIsRefused) {
  EXPECT_EQ(failureOf("{} x"), "The document root must not be followed by other values at byte 3");
  EXPECT_EQ(failureOf(std::string_view("{}\0{}", 5)),
            "The document root must not be followed by other values at byte 2");
}

TEST(JSONReader, NestingIsLimited) {
  const auto nested = [](std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  EXPECT_TRUE(parseJSON(nested(64)));
  EXPECT_NE(failureOf(nested(65)).find("Nested deeper than 64 levels at byte"), std::string::npos);
  EXPECT_FALSE(parseJSON(std::string(1'000'000, '[')));
  std::string objects;
  for (int i = 0; i < 65; ++i) objects += "{\"k\":";
  EXPECT_FALSE(parseJSON(objects + "1" + std::string(65, '}')));
}

TEST(JSONReader, EveryTruncationIsRefused) {
  const std::string text = R"({"a":[1,-2.5e3,"x\u00e9",true,null],"b":{"c":"d"}})";
  read(text);
  for (std::size_t length = 0; length < text.size(); ++length)
    EXPECT_FALSE(parseJSON(std::string_view(text).substr(0, length))) << length;
}

}  // namespace
}  // namespace corvid
