#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/KeyedHash.h"
#include "base/Value.h"
#include "tests/support/CollidingKeys.h"

namespace corvid {
namespace {

// The algorithm's published values: the key's bytes are 0 to 15, the message's 0, 1, 2 and so on.
TEST(KeyedHash, IsSipHash) {
  constexpr std::array<std::uint64_t, 2> key{0x0706050403020100, 0x0f0e0d0c0b0a0908};
  std::string message;
  EXPECT_EQ(sipHash(key, message), 0x726fdb47dd0e0e31u);
  for (char byte = 0; byte < 15; ++byte) message.push_back(byte);
  EXPECT_EQ(sipHash(key, message.substr(0, 1)), 0x74f839c593dc67fdu);
  EXPECT_EQ(sipHash(key, message.substr(0, 8)), 0x93f5f5799a932462u);
  EXPECT_EQ(sipHash(key, message), 0xa129ca6149be45e5u);
}

TEST(KeyedHash, IsTheSameForTheSameTextAllTheTime) {
  EXPECT_EQ(KeyedHash{}("a key"), KeyedHash{}(std::string("a key")));
  EXPECT_NE(KeyedHash{}("a key"), KeyedHash{}("another"));
}

TEST(KeyedHash, KeysThatWereChosenToCollideDoNot) {
  const std::vector<std::string> keys = CollidingKeys::make(2000);
  std::size_t sameEnd = 0;
  for (const std::string& key : keys) {
    ASSERT_EQ(std::hash<std::string>{}(key) % (1 << 20), 0u) << "they do in the library's tables";
    sameEnd += KeyedHash{}(key) % 1024 == KeyedHash{}(keys.front()) % 1024;
  }
  EXPECT_LT(sameEnd, 20u);
}

TEST(KeyedHash, ADictionaryOfSuchKeysIsMadeAsFastAsAnyOther) {
  const auto timeFor = [](const std::vector<std::string>& keys) {
    const auto start = std::chrono::steady_clock::now();
    Dictionary dictionary;
    for (const std::string& key : keys) dictionary.set(key, 1);
    EXPECT_EQ(dictionary.size(), keys.size());
    return std::chrono::steady_clock::now() - start;
  };
  constexpr std::size_t count = 20'000;
  std::vector<std::string> ordinary;
  for (std::size_t i = 0; i < count; ++i) ordinary.push_back(std::to_string(10'000'000 + i));
  // With the library's hash the factor is several hundred.
  EXPECT_LT(timeFor(CollidingKeys::make(count)), 20 * timeFor(ordinary));
}

}  // namespace
}  // namespace corvid
