#include <capnp/message.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "protocol/wire/ValueCodec.h"

namespace corvid::wire {
namespace {

// A dictionary as the root of a message, as large as it must be.
class Encoded {
 public:
  explicit Encoded(const Dictionary& dictionary) : _message(1 << 16) {
    encode(dictionary, root().initDictionary(static_cast<capnp::uint>(dictionary.size())));
  }
  Encoded() = default;
  PropertyValue::Builder root() { return _message.getRoot<PropertyValue>(); }
  Dictionary decoded() {
    return ValueDecoder().dictionary(_message.getRoot<PropertyValue>().asReader().getDictionary());
  }
  std::size_t words() { return _message.sizeInWords(); }

 private:
  capnp::MallocMessageBuilder _message;
};

Dictionary everyType() {
  return {{"null", Value()},
          {"true", true},
          {"false", false},
          {"least", std::numeric_limits<std::int64_t>::min()},
          {"most", std::numeric_limits<std::int64_t>::max()},
          {"real", -0.5},
          {"date", Date{1700000000.25}},
          {"empty text", ""},
          {"text", "gr\u00fc\u00df dich, \u4e16\u754c \U0001F600"},
          {"text with zero", std::string("a\0b", 3)},
          {"data", Data{std::string("\0\xff\x80", 3)}},
          {"empty data", Data{}},
          {"array", Array{1, "two", 3.0, Array{}, Dictionary{}}},
          {"dictionary", Dictionary{{"inner", Dictionary{{"innermost", Array{true}}}}}},
          {"", "empty key"}};
}

// Dictionaries within each other, `depth` of them in all.
Dictionary nested(std::size_t depth) {
  Dictionary dictionary{{"bottom", true}};
  for (std::size_t i = 1; i < depth; ++i) dictionary = Dictionary{{"down", std::move(dictionary)}};
  return dictionary;
}

// An array in a dictionary: `values` values in all.
Dictionary ofValues(std::size_t values) { return {{"array", Array(values - 1)}}; }

Fitness fitnessOf(const Dictionary& dictionary) {
  Extent extent;
  extent.add(dictionary);
  return extent.fitness;
}

TEST(ValueCodec, KeepsEveryType) { EXPECT_EQ(Encoded(everyType()).decoded(), everyType()); }

TEST(ValueCodec, KeepsTheOrderOfEntries) {
  const Dictionary decoded = Encoded({{"b", 1}, {"a", 2}, {"c", 3}}).decoded();
  std::string keys;
  for (const auto& entry : decoded) keys += entry.key;
  EXPECT_EQ(keys, "bac");
}

TEST(ValueCodec, KeepsNumbersThatAreNone) {
  const Dictionary decoded = Encoded({{"nan", std::numeric_limits<double>::quiet_NaN()},
                                      {"inf", std::numeric_limits<double>::infinity()}})
                                 .decoded();
  EXPECT_NE(decoded.find("nan")->real(), decoded.find("nan")->real());
  EXPECT_EQ(decoded.find("inf")->real(), std::numeric_limits<double>::infinity());
}

TEST(ValueCodec, TakesTheLastOfEqualKeys) {
  Encoded message;
  auto entries = message.root().initDictionary(2);
  entries[0].setKey("key"), entries[0].setInt64(1);
  entries[1].setKey("key"), entries[1].setInt64(2);
  EXPECT_EQ(message.decoded(), (Dictionary{{"key", 2}}));
}

TEST(ValueCodec, ReadsAMissingKeyAsAnEmptyText) {
  Encoded message;
  message.root().initDictionary(1)[0].setBoolean(true);
  EXPECT_EQ(message.decoded(), (Dictionary{{"", true}}));
}

TEST(ValueCodec, NestsAsDeepAsTheLimitAndNoDeeper) {
  EXPECT_EQ(Encoded(nested(limits::valueNesting)).decoded(), nested(limits::valueNesting));
  EXPECT_EQ(fitnessOf(nested(limits::valueNesting)), Fitness::fits);
  EXPECT_THROW(Encoded(nested(limits::valueNesting + 1)).decoded(), BrokenRule);
  EXPECT_EQ(fitnessOf(nested(limits::valueNesting + 1)), Fitness::tooDeep);
}

TEST(ValueCodec, TakesAsManyValuesAsTheLimitAndNoMore) {
  EXPECT_EQ(Encoded(ofValues(limits::valuesPerMessage)).decoded(),
            ofValues(limits::valuesPerMessage));
  EXPECT_EQ(fitnessOf(ofValues(limits::valuesPerMessage)), Fitness::fits);
  EXPECT_THROW(Encoded(ofValues(limits::valuesPerMessage + 1)).decoded(), BrokenRule);
  EXPECT_EQ(fitnessOf(ofValues(limits::valuesPerMessage + 1)), Fitness::tooLarge);
}

TEST(ValueCodec, CountsTheValuesOfAllThatOneDecoderReads) {
  Encoded half(ofValues(limits::valuesPerMessage / 2 + 1));
  ValueDecoder decoder;
  const auto list = half.root().asReader().getDictionary();
  EXPECT_NO_THROW(decoder.dictionary(list));
  EXPECT_THROW(decoder.dictionary(list), BrokenRule);
}

TEST(ValueCodec, RefusesTextsAndKeysThatAreNotUTF8) {
  EXPECT_THROW(Encoded({{"text", "long enough \xff"}}).decoded(), BrokenRule);
  EXPECT_THROW(Encoded({{"text", "\xc0\xaf"}}).decoded(), BrokenRule);
  EXPECT_THROW(Encoded({{"key \xed\xa0\x80", 1}}).decoded(), BrokenRule);
}

TEST(ValueCodec, RefusesADateThatIsNoNumber) {
  const Dictionary dictionary{{"date", Date{std::numeric_limits<double>::infinity()}}};
  EXPECT_THROW(Encoded(dictionary).decoded(), BrokenRule);
}

TEST(ValueCodec, RefusesATypeThatItDoesNotKnow) {
  Encoded message;
  auto entry = message.root().initDictionary(1)[0];
  entry.setBoolean(true);
  // The tag of the union comes first.
  capnp::AnyStruct::Builder any = capnp::toAny(entry);
  any.getDataSection()[0] = 99;
  EXPECT_THROW(message.decoded(), BrokenRule);
}

TEST(ValueCodec, ForeseesTheSpaceThatAValueTakes) {
  for (const Dictionary& dictionary : {everyType(), nested(8), ofValues(1000), Dictionary()}) {
    Extent extent;
    extent.add(dictionary);
    // The root pointer and the structure that holds the dictionary.
    constexpr std::size_t envelope = 5;
    EXPECT_EQ(extent.words + envelope, Encoded(dictionary).words());
  }
}

TEST(ValueCodec, FindsWhatIsTooLargeForAMessage) {
  EXPECT_EQ(fitnessOf({{"data", Data{std::string(limits::messageBytes, 'x')}}}), Fitness::tooLarge);
  EXPECT_EQ(fitnessOf({{"text", std::string(limits::messageBytes, 'x')}}), Fitness::tooLarge);
}

}  // namespace
}  // namespace corvid::wire
