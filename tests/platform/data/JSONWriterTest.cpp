#include <gtest/gtest.h>

#include <limits>

#include "platform/data/JSON.h"

namespace corvid {
namespace {

std::string written(Value value) {
  const auto text = writeJSON(Dictionary{{"k", std::move(value)}});
  if (!text) return "(nothing)";
  return text->substr(5, text->size() - 6);  // without {"k": and }
}

TEST(JSONWriter, WritesCompactTextInTheOrderOfTheEntries) {
  const Dictionary object{{"b", 1}, {"a", Array{1, "x", Value()}}, {"c", Dictionary{{"d", false}}}};
  EXPECT_EQ(writeJSON(object), R"({"b":1,"a":[1,"x",null],"c":{"d":false}})");
}

TEST(JSONWriter, EmptyContainersAreWritten) {
  EXPECT_EQ(writeJSON({}), "{}");
  EXPECT_EQ(written(Array{}), "[]");
  EXPECT_EQ(written(Dictionary{}), "{}");
}

TEST(JSONWriter, IndentedTextIsTheSameOverSeveralLines) {
  EXPECT_EQ(indentedJSON(*writeJSON({{"k", "v"}, {"n", Array{-5, 2.0}}, {"e", Array{}}})),
            "{\n"
            "    \"k\": \"v\",\n"
            "    \"n\": [\n"
            "        -5,\n"
            "        2.0\n"
            "    ],\n"
            "    \"e\": []\n"
            "}");
}

TEST(JSONWriter, IntegersAreWrittenInFull) {
  EXPECT_EQ(written(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
  EXPECT_EQ(written(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(written(0), "0");
}

TEST(JSONWriter, RealsAreTheShortestTextThatReadsBackTheSame) {
  EXPECT_EQ(written(0.1), "0.1");
  EXPECT_EQ(written(1700000000.123456), "1700000000.123456");
  EXPECT_EQ(written(5e-324), "5e-324");
  EXPECT_EQ(written(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
  EXPECT_EQ(written(2.0 / 3), "0.6666666666666666");
  EXPECT_EQ(written(9.5e-7), "9.5e-07");
}

TEST(JSONWriter, WholeRealsStayReals) {
  EXPECT_EQ(written(1.0), "1.0");
  EXPECT_EQ(written(-0.0), "-0.0");
  EXPECT_EQ(written(100000.0), "100000.0");
  EXPECT_EQ(written(9999999999999998.0), "9999999999999998.0");
  EXPECT_EQ(written(1e16), "1e+16");
}

TEST(JSONWriter, NumbersThatAreNotFiniteRefuse) {
  EXPECT_EQ(written(std::numeric_limits<double>::infinity()), "(nothing)");
  EXPECT_EQ(written(-std::numeric_limits<double>::infinity()), "(nothing)");
  EXPECT_EQ(written(std::numeric_limits<double>::quiet_NaN()), "(nothing)");
}

TEST(JSONWriter, IndentingLeavesTextsAsTheyAre) {
  const std::string odd = R"({"k\"{[,:]}":"\\","e":{},"d":{"x":[[]]}})";
  EXPECT_EQ(indentedJSON(odd),
            "{\n"
            "    \"k\\\"{[,:]}\": \"\\\\\",\n"
            "    \"e\": {},\n"
            "    \"d\": {\n"
            "        \"x\": [\n"
            "            []\n"
            "        ]\n"
            "    }\n"
            "}");
  EXPECT_EQ(indentedJSON("{}"), "{}");
}

TEST(JSONWriter, DataAndDatesRefuseAtAnyDepth) {
  EXPECT_EQ(written(Data{"x"}), "(nothing)");
  EXPECT_EQ(written(Date{0}), "(nothing)");
  EXPECT_EQ(written(Array{Dictionary{{"d", Date{0}}}}), "(nothing)");
}

TEST(JSONWriter, SpecialCharactersAreEscaped) {
  EXPECT_EQ(written("\"\\/\b\f\n\r\t\x01\x1f\x7f"),
            "\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001F\x7f\"");
  EXPECT_EQ(written(std::string("a\0b", 3)), "\"a\\u0000b\"");
  EXPECT_EQ(writeJSON(Dictionary{{"a\"b", 1}}), R"({"a\"b":1})");
}

// The short way for plain text looks at several bytes at once: each length and place counts.
TEST(JSONWriter, ASpecialCharacterIsFoundAtEveryPlaceOfEveryLength) {
  for (std::size_t length = 1; length <= 40; ++length) {
    EXPECT_EQ(written(std::string(length, 'x')), '"' + std::string(length, 'x') + '"');
    for (std::size_t at = 0; at < length; ++at) {
      std::string text(length, 'x');
      text[at] = '"';
      std::string expected = '"' + text + '"';
      expected.insert(at + 1, "\\");
      EXPECT_EQ(written(text), expected);
      text[at] = '\xff';
      EXPECT_EQ(written(text), "(nothing)");
    }
  }
}

TEST(JSONWriter, EveryByteIsCopiedEscapedOrRefused) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = "abcdefghijk" + std::string(1, static_cast<char>(byte)) + "lmn";
    const std::string result = written(text);
    if (byte >= 0x80)
      EXPECT_EQ(result, "(nothing)") << byte;
    else if (byte < 0x20 || byte == '"' || byte == '\\')
      EXPECT_EQ(result.substr(0, 13), "\"abcdefghijk\\") << byte;
    else
      EXPECT_EQ(result, '"' + text + '"') << byte;
  }
}

TEST(JSONWriter, TextBeyondASCIIIsWrittenAsItIs) {
  EXPECT_EQ(written("gr\u00fc\u00dfe \u65e5\u672c \U0001F600"),
            "\"gr\u00fc\u00dfe \u65e5\u672c \U0001F600\"");
}

TEST(JSONWriter, StringsAndKeysThatAreNotUTF8Refuse) {
  for (const char* text : {"\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
    EXPECT_EQ(written(text), "(nothing)");
    EXPECT_FALSE(writeJSON(Dictionary{{text, 1}}));
  }
}

TEST(JSONWriter, LargeMessagesGrowTheText) {
  Array events;
  std::string expected = "{\"events\":[";
  for (int i = 0; i < 5000; ++i) {
    events.push_back(Dictionary{{"_eventNumber", i}});
    expected += (i > 0 ? ",{\"_eventNumber\":" : "{\"_eventNumber\":") + std::to_string(i) + "}";
  }
  EXPECT_EQ(writeJSON(Dictionary{{"events", std::move(events)}}), expected + "]}");
}

TEST(JSONWriter, AnnouncesAtLeastAsManyBytesAsItWrites) {
  std::string everyCharacter;
  for (char c = 1; c < 127; ++c) everyCharacter += c;
  for (const Dictionary& object :
       {Dictionary(), Dictionary{{everyCharacter, everyCharacter}},
        Dictionary{{"k", std::string(1000, '\x01')}, {"q", std::string(1000, '"')}},
        Dictionary{{"n", Array{-9223372036854775807, 1.7976931348623157e308,
                               -2.2250738585072014e-308, true, Value()}}},
        Dictionary{{"a", Array{Array{}, Dictionary{}, Array{1, 2, "\xc3\xa9"}}}}}) {
    const std::string text = writeJSON(object).value();
    EXPECT_GE(mostJSONBytes(object), text.size());
    EXPECT_LE(mostJSONBytes(object), 2 * text.size() + 200) << text;
    EXPECT_EQ(writeJSON(object, mostJSONBytes(object)), text);
  }
}

TEST(JSONWriter, EachCharacterThatIsEscapedCountsWhereverItStands) {
  for (std::size_t size = 1; size < 20; ++size)
    for (std::size_t at = 0; at < size; ++at)
      for (const char escaped : {'"', '\\', '\n', '\1', '\x1f'}) {
        std::string text(size, 'x');
        text[at] = escaped;
        const Dictionary object{{text, text}};
        EXPECT_GE(mostJSONBytes(object), writeJSON(object)->size()) << size << ", " << at;
      }
}

}  // namespace
}  // namespace corvid
