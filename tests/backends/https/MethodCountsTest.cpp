#include <gtest/gtest.h>

#include <limits>

#include "backends/https/MethodCounts.h"

namespace corvid {
namespace {

constexpr auto mostMethods = static_cast<std::int32_t>(MethodCounts::limit);

TEST(MethodCounts, CountsEachMethodFromNothing) {
  MethodCounts counts;
  EXPECT_EQ(counts.of(3), 0);
  counts.increment(3);
  counts.increment(3);
  counts.increment(-5);
  EXPECT_EQ(counts.of(3), 2);
  EXPECT_EQ(counts.of(-5), 1);
  counts.set(3, 1);
  EXPECT_EQ(counts.of(3), 1);
  counts.clear();
  EXPECT_EQ(counts.of(3), 0);
  EXPECT_EQ(counts.of(-5), 0);
}

TEST(MethodCounts, HasRoomForEveryMethodOfAnEvent) {
  MethodCounts counts;
  for (int round = 0; round < 2; ++round)
    for (std::int32_t method = 0; method < mostMethods; ++method) counts.increment(method);
  EXPECT_EQ(counts.of(0), 2);
  EXPECT_EQ(counts.of(std::numeric_limits<std::uint16_t>::max()), 2);
}

TEST(MethodCounts, PastTheLimitAllBeginAnew) {
  for (const bool byIncrement : {true, false}) {
    MethodCounts counts;
    for (std::int32_t method = 0; method < mostMethods; ++method) counts.increment(method);
    EXPECT_EQ(counts.of(mostMethods), 0);
    EXPECT_EQ(counts.of(0), 1) << "asking takes no room";
    byIncrement ? counts.increment(mostMethods) : counts.set(mostMethods, 1);
    EXPECT_EQ(counts.of(mostMethods), 1);
    EXPECT_EQ(counts.of(0), 0);
    EXPECT_EQ(counts.of(mostMethods - 1), 0);
  }
}

TEST(MethodCounts, TheLargestCountStays) {
  constexpr std::int32_t largest = std::numeric_limits<std::int32_t>::max();
  MethodCounts counts;
  counts.set(3, largest - 1);
  counts.increment(3);
  EXPECT_EQ(counts.of(3), largest);
  counts.increment(3);
  EXPECT_EQ(counts.of(3), largest);
}

}  // namespace
}  // namespace corvid
