#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gateway/body/KeySet.h"
#include "tests/support/CollidingKeys.h"

namespace corvid::fleet {
namespace {

// Adds the keys of one object and says where the one stands that came before.
class Keys {
 public:
  void add(std::string_view key, bool hasEscapes = false) {
    _places.emplace_back(_text.size(), key.size(), hasEscapes);
    _text += key;
  }
  std::optional<std::size_t> twice() const {
    KeySet set;
    set.openObject();
    for (const auto& [at, size, hasEscapes] : _places) set.add(_text, at, size, hasEscapes);
    return set.closeObject(_text);
  }
  std::size_t placeOf(std::size_t index) const { return std::get<0>(_places[index]); }

 private:
  std::string _text;
  std::vector<std::tuple<std::size_t, std::size_t, bool>> _places;
};

TEST(KeySetTest, FindsTheLaterOfTwoSameKeysAmongAnyNumber) {
  for (const std::size_t count : {2u, 5u, 39u, 40u, 41u, 1000u}) {
    Keys keys;
    for (std::size_t i = 0; i + 1 < count; ++i) keys.add(fmt::format("a key with number {}", i));
    EXPECT_FALSE(keys.twice()) << count;
    keys.add("a key with number 0");
    EXPECT_EQ(keys.twice(), keys.placeOf(count - 1)) << count;
  }
}

TEST(KeySetTest, TellsKeysOfEveryLengthApart) {
  Keys keys;
  for (std::size_t length = 0; length < 40; ++length) keys.add(std::string(length, 'k'));
  EXPECT_FALSE(keys.twice());
}

TEST(KeySetTest, ComparesWhatEscapesMean) {
  Keys keys;
  keys.add(R"(a\u0062)", true);
  keys.add("a\\\\b", true);
  keys.add(R"(\ud83d\ude00)", true);
  EXPECT_FALSE(keys.twice());
  Keys twice = keys;
  twice.add("ab");
  EXPECT_TRUE(twice.twice());
  keys.add("😀");
  EXPECT_TRUE(keys.twice());
}

TEST(KeySetTest, KeepsTheKeysOfOpenObjectsApart) {
  const std::string text = "aab";
  KeySet set;
  set.openObject();
  set.add(text, 0, 1, false);
  set.openObject();
  set.add(text, 1, 1, false);
  EXPECT_EQ(set.membersOfInnermost(), 1u);
  EXPECT_FALSE(set.closeObject(text));
  set.add(text, 2, 1, false);
  EXPECT_EQ(set.membersOfInnermost(), 2u);
  EXPECT_FALSE(set.closeObject(text));
}

TEST(KeySetTest, IsNotSlowedDownByKeysThatCollideElsewhere) {
  Keys keys;
  for (const std::string& key : CollidingKeys::make(2000)) keys.add(key);
  EXPECT_FALSE(keys.twice());
}

TEST(UnescapedTest, GivesTheTextThatEscapesMean) {
  EXPECT_EQ(unescaped(R"(a\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00z)"), "a\"\\/\b\f\n\r\té😀z");
}

}  // namespace
}  // namespace corvid::fleet
