#include <gtest/gtest.h>

#include <vector>

#include "platform/LogShares.h"

namespace corvid {
namespace {

using Ranges = std::vector<ByteRange>;

class LogSharesTest : public testing::Test {
 protected:
  // Every line is so long that ten bytes make one.
  Ranges removeHalf() {
    return shares.removeOlderHalfOfMost([](std::size_t from, std::size_t latest) {
      return std::min((from + 9) / 10 * 10, latest);
    });
  }

  LogShares shares;
};

TEST_F(LogSharesTest, OneWhoHasAllGivesUpTheOlderHalf) {
  for (int i = 0; i < 10; ++i) shares.add(1000, 10);
  EXPECT_EQ(removeHalf(), (Ranges{{0, 50}}));
  EXPECT_EQ(shares.bytes(), 50u);
  EXPECT_EQ(removeHalf(), (Ranges{{0, 30}})) << "to the end of the line";
  EXPECT_EQ(shares.bytes(), 20u);
}

TEST_F(LogSharesTest, OnlyLinesOfWhoHasMostGo) {
  shares.add(1000, 10);
  shares.add(1001, 10);
  shares.add(1000, 20);
  shares.add(1001, 10);
  shares.add(1000, 30);
  EXPECT_EQ(removeHalf(), (Ranges{{0, 10}, {20, 40}}));
  EXPECT_EQ(shares.bytes(), 50u);
  // 1001, 1001, 1000: what stood apart is together now.
  EXPECT_EQ(removeHalf(), (Ranges{{20, 40}}));
  EXPECT_EQ(removeHalf(), (Ranges{{0, 10}}));
}

TEST_F(LogSharesTest, AFloodNeverTakesALineOfWhoHasLess) {
  shares.add(1000, 40);
  std::size_t removed = 0;
  for (int i = 0; i < 1000; ++i) {
    shares.add(1001, 10);
    if (shares.bytes() < 200) continue;
    for (const ByteRange& range : removeHalf()) {
      EXPECT_GE(range.begin, 40u);
      removed += range.end - range.begin;
    }
  }
  EXPECT_EQ(shares.bytes(), 40 + 10'000 - removed);
}

TEST_F(LogSharesTest, WhatStoodThereBeforeIsNobodys) {
  shares.begin("/log", 100);
  EXPECT_TRUE(shares.isOf("/log", 100));
  shares.add(1000, 60);
  EXPECT_TRUE(shares.isOf("/log", 160));
  EXPECT_EQ(removeHalf(), (Ranges{{0, 50}}));
  EXPECT_TRUE(shares.isOf("/log", 110));
  EXPECT_EQ(removeHalf(), (Ranges{{50, 80}}));
}

TEST_F(LogSharesTest, ALogOfAnotherPlaceOrLengthIsNotTheOneThatIsKnown) {
  shares.begin("/log", 100);
  EXPECT_FALSE(shares.isOf("/log", 101));
  EXPECT_FALSE(shares.isOf("/other", 100));
}

TEST_F(LogSharesTest, AnEmptyLogHasNothingToGiveUp) {
  EXPECT_EQ(removeHalf(), Ranges());
  shares.begin("/log", 0);
  EXPECT_EQ(shares.bytes(), 0u);
}

TEST_F(LogSharesTest, RunsOfMoreThanFourGibibytesAreCountedWhole) {
  const std::size_t large = std::size_t{5} << 30;
  shares.begin("/log", large);
  shares.add(std::nullopt, large);
  EXPECT_EQ(shares.bytes(), 2 * large);
  EXPECT_EQ(removeHalf().back().end, large);
}

}  // namespace
}  // namespace corvid
