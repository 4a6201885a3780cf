#include <gtest/gtest.h>

#include "base/Value.h"

namespace corvid {
namespace {

TEST(Value, AnswersOnlyForItsOwnType) {
  const Value text("abc");
  ASSERT_NE(text.string(), nullptr);
  EXPECT_EQ(*text.string(), "abc");
  EXPECT_FALSE(text.integer());
  EXPECT_FALSE(text.boolean());
  EXPECT_EQ(text.array(), nullptr);
  EXPECT_EQ(Value(true).boolean(), true);
  EXPECT_FALSE(Value(true).integer());
  EXPECT_EQ(Value(7u).integer(), 7);
  EXPECT_FALSE(Value(7).real());
  EXPECT_TRUE(Value().isNull());
}

TEST(Value, TypeNamesItsContent) {
  EXPECT_EQ(Value(1.5).type(), Value::Type::real);
  EXPECT_EQ(Value(Date{1}).type(), Value::Type::date);
  EXPECT_EQ(Value(Data{"x"}).type(), Value::Type::data);
  EXPECT_EQ(Value(Array{}).type(), Value::Type::array);
  EXPECT_EQ(Value(Dictionary{}).type(), Value::Type::dictionary);
}

TEST(Value, ComparesContainersDeeply) {
  const Value a(Dictionary{{"list", Array{Value(1), Value("x")}}, {"data", Data{"12"}}});
  const Value b(Dictionary{{"data", Data{"12"}}, {"list", Array{Value(1), Value("x")}}});
  EXPECT_EQ(a, b);
  EXPECT_FALSE(a == Value(Dictionary{{"list", Array{}}, {"data", Data{"12"}}}));
  EXPECT_FALSE(Value(1) == Value(1.0));
}

TEST(Dictionary, KeepsInsertionOrderAndReplacesInPlace) {
  Dictionary dictionary;
  dictionary.set("b", 1);
  dictionary.set("a", 2);
  dictionary.set("b", 3);
  ASSERT_EQ(dictionary.size(), 2u);
  EXPECT_EQ(dictionary.begin()->key, "b");
  EXPECT_EQ(dictionary.find("b")->integer(), 3);
}

TEST(Dictionary, FindsEveryKeyOnBothSidesOfTheIndexThreshold) {
  Dictionary dictionary;
  for (std::size_t count = 1; count <= Dictionary::indexThreshold * 6; ++count) {
    dictionary.set("key" + std::to_string(count), count);
    for (std::size_t i = 1; i <= count; ++i)
      ASSERT_EQ(dictionary.find("key" + std::to_string(i))->integer(),
                static_cast<std::int64_t>(i));
    ASSERT_EQ(dictionary.find("other"), nullptr);
  }
}

TEST(Dictionary, ErasesAndStillFindsTheRest) {
  Dictionary dictionary;
  for (int i = 0; i < 200; ++i) dictionary.set(std::to_string(i), i);
  for (int i = 0; i < 200; i += 2) EXPECT_TRUE(dictionary.erase(std::to_string(i)));
  EXPECT_FALSE(dictionary.erase("0"));
  EXPECT_EQ(dictionary.size(), 100u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(dictionary.contains(std::to_string(i)), i % 2 == 1);
}

TEST(Dictionary, AnEmptyKeyIsAKeyLikeAnyOther) {
  Dictionary dictionary{{"a", 1}};
  EXPECT_FALSE(dictionary.contains(""));
  dictionary.set("", 2);
  EXPECT_EQ(*dictionary.find(""), Value(2));
  EXPECT_TRUE(dictionary.erase(""));
  EXPECT_FALSE(dictionary.contains(""));
}

TEST(Dictionary, TransformChangesAndDropsEntries) {
  Dictionary dictionary{{"keep", 1}, {"drop", 2}};
  dictionary.transformEntries([](const std::string& key, Value& value) {
    value = Value("changed");
    return key == "keep";
  });
  EXPECT_EQ(dictionary, (Dictionary{{"keep", "changed"}}));
}

TEST(Dictionary, TransformedKeysAreFoundWhetherSomeWereDroppedOrNot) {
  for (const bool drops : {false, true}) {
    Dictionary dictionary;
    for (int i = 0; i < 200; ++i) dictionary.set(std::to_string(i), i);
    dictionary.transformEntries(
        [&](const std::string& key, Value&) { return !drops || key != "7"; });
    EXPECT_EQ(dictionary.contains("7"), !drops);
    for (int i = 100; i < 200; ++i) EXPECT_EQ(*dictionary.find(std::to_string(i)), Value(i));
  }
}

TEST(Dictionary, AddedEntriesWinOverEqualKeys) {
  Dictionary dictionary{{"a", 1}, {"b", 1}};
  dictionary.addEntriesFrom(Dictionary{{"b", 2}, {"c", 2}});
  EXPECT_EQ(dictionary, (Dictionary{{"a", 1}, {"b", 2}, {"c", 2}}));
}

TEST(Dictionary, EntriesAddedToAnEmptyOneAreFoundHoweverMany) {
  for (const std::size_t count : {std::size_t{3}, 2 * Dictionary::indexThreshold}) {
    Dictionary many;
    for (std::size_t i = 0; i < count; ++i) many.set("key " + std::to_string(i), i);
    Dictionary dictionary{{"gone", 1}};
    dictionary.erase("gone");
    dictionary.addEntriesFrom(many);
    EXPECT_EQ(dictionary, many);
    EXPECT_FALSE(dictionary.contains("gone"));
    dictionary.set("key 2", "changed");
    dictionary.set("new", 1);
    EXPECT_EQ(dictionary.size(), count + 1);
    EXPECT_EQ(*dictionary.find("key 2")->string(), "changed");
    EXPECT_EQ(dictionary.find("key 1")->integer(), 1);
  }
}

}  // namespace
}  // namespace corvid
