#include <gtest/gtest.h>

#include "backends/https/HeldRecords.h"
#include "base/Reading.h"

namespace corvid {
namespace {

Dictionary recordOf(std::int64_t number) { return {{"n", number}}; }
Dictionary recordOf(std::int64_t number, std::size_t textBytes) {
  return {{"n", number}, {"text", std::string(textBytes, 'x')}};
}

std::vector<std::int64_t> numbersOf(std::vector<Dictionary> records) {
  std::vector<std::int64_t> numbers;
  for (const Dictionary& record : records) numbers.push_back(*record.find("n")->integer());
  return numbers;
}

using Numbers = std::vector<std::int64_t>;

TEST(HeldRecords, KeepsTheOrder) {
  HeldRecords held;
  for (int i = 1; i <= 3; ++i) held.add(recordOf(i));
  EXPECT_EQ(held.dropped(), 0u);
  EXPECT_EQ(numbersOf(std::move(held).take()), (Numbers{1, 2, 3}));
}

TEST(HeldRecords, PastTheRecordLimitTheOldestGo) {
  HeldRecords held;
  const auto limit = static_cast<std::int64_t>(HeldRecords::recordLimit);
  for (std::int64_t i = 0; i < limit; ++i) held.add(recordOf(i));
  EXPECT_TRUE(held.overflowsWith(recordOf(limit)));
  EXPECT_EQ(held.dropped(), 0u);
  held.add(recordOf(limit));
  held.add(recordOf(limit + 1));
  EXPECT_EQ(held.dropped(), 2u);
  EXPECT_EQ(held.size(), HeldRecords::recordLimit);
  const Numbers numbers = numbersOf(std::move(held).take());
  EXPECT_EQ(numbers.front(), 2);
  EXPECT_EQ(numbers.back(), limit + 1);
}

TEST(HeldRecords, PastTheByteLimitTheOldestGo) {
  HeldRecords held;
  const std::size_t third = HeldRecords::byteLimit / 3;
  for (int i = 1; i <= 2; ++i) held.add(recordOf(i, third));
  EXPECT_FALSE(held.overflowsWith(recordOf(3)));
  EXPECT_TRUE(held.overflowsWith(recordOf(3, third)));
  held.add(recordOf(3, 2 * third));
  EXPECT_EQ(held.dropped(), 2u) << "as many as it takes";
  EXPECT_EQ(numbersOf(std::move(held).take()), Numbers{3});
}

TEST(HeldRecords, ARecordPastTheByteLimitIsHeldAlone) {
  HeldRecords held;
  const Dictionary huge = recordOf(2, 2 * HeldRecords::byteLimit);
  EXPECT_FALSE(held.overflowsWith(huge)) << "nothing would be dropped for it";
  held.add(recordOf(1));
  held.add(huge);
  EXPECT_EQ(held.size(), 1u);
  held.add(recordOf(3));
  EXPECT_EQ(numbersOf(std::move(held).take()), Numbers{3});
}

TEST(HeldRecords, GivesBackTheBytesOfWhatItDrops) {
  HeldRecords held;
  for (int i = 0; i < 100; ++i) held.add(recordOf(i, HeldRecords::byteLimit / 4));
  EXPECT_EQ(held.size(), 3u) << "as many as fit, however many came before";
}

TEST(HeldRecords, RewritesAKeyOfEveryRecord) {
  HeldRecords held;
  held.add(recordOf(1));
  held.add({{"n", 2}, {"_sessionID", "old"}});
  held.setForAll("_sessionID", "new");
  for (const Dictionary& record : std::move(held).take())
    EXPECT_EQ(*stringAt(record, "_sessionID"), "new");
}

TEST(HeldRecords, MakesRoomForWhatEachIsAboutToGetByDroppingTheOldest) {
  HeldRecords held;
  for (int i = 1; i <= 8; ++i) held.add(recordOf(i));
  held.makeRoomToGrowBy(HeldRecords::messageByteLimit / 16);
  EXPECT_EQ(held.dropped(), 0u);
  held.makeRoomToGrowBy(HeldRecords::messageByteLimit / 4);
  EXPECT_EQ(held.dropped(), 5u);
  EXPECT_EQ(numbersOf(std::move(held).take()), (Numbers{6, 7, 8}));
}

}  // namespace
}  // namespace corvid
