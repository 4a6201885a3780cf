#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <numeric>
#include <vector>

#include "base/Share.h"

namespace corvid {
namespace {

// What each of so many users has when all have taken one by one, in turn, what they may.
std::vector<std::size_t> takenInTurn(std::size_t users, std::size_t capacity) {
  std::vector<std::size_t> taken(users);
  for (bool hasMore = true; hasMore;) {
    hasMore = false;
    for (std::size_t& own : taken) {
      const std::size_t all = std::accumulate(taken.begin(), taken.end(), std::size_t{0});
      if (!leavesRoomForOthers(own, all, 1, capacity)) continue;
      ++own;
      hasMore = true;
    }
  }
  return taken;
}

TEST(Share, OneUserAloneGetsExactlyWhatTheCapacityIsFor) {
  for (const std::size_t alone : {1u, 2u, 3u, 8u, 25u, 32u, 100u, 65536u})
    EXPECT_EQ(takenInTurn(1, capacityFor(alone))[0], alone) << alone;
}

TEST(Share, SeveralGetTheSame) {
  EXPECT_EQ(takenInTurn(2, 1000), (std::vector<std::size_t>{400, 400}));
  for (const std::size_t own : takenInTurn(7, 1500)) EXPECT_EQ(own, 200u);
}

TEST(Share, HoweverManyHaveWhatTheyMayAnotherFindsRoom) {
  for (std::size_t users = 1; users < 20; ++users) {
    const auto taken = takenInTurn(users, 1000);
    const std::size_t all = std::accumulate(taken.begin(), taken.end(), std::size_t{0});
    EXPECT_TRUE(leavesRoomForOthers(0, all, 1, 1000)) << users;
  }
}

TEST(Share, ALargePieceCountsAsAWhole) {
  EXPECT_TRUE(leavesRoomForOthers(0, 0, 800, 1200));
  EXPECT_FALSE(leavesRoomForOthers(0, 0, 801, 1200));
  EXPECT_FALSE(leavesRoomForOthers(0, 1200, 1, 1200));
  EXPECT_FALSE(leavesRoomForOthers(0, 1300, 1, 1200));
  EXPECT_FALSE(leavesRoomForOthers(0, 5, std::numeric_limits<std::size_t>::max(), 1200));
  EXPECT_FALSE(leavesRoomForOthers(1, 5, std::numeric_limits<std::size_t>::max(), 1200));
}

TEST(Share, TheLastPieceIsForWhoeverHasNothing) {
  EXPECT_EQ(shareBeside(999, 1000), 1u);
  EXPECT_TRUE(leavesRoomForOthers(0, 999, 1, 1000));
  EXPECT_FALSE(leavesRoomForOthers(1, 999, 1, 1000));
  EXPECT_EQ(shareBeside(1000, 1000), 0u);
  EXPECT_EQ(shareBeside(1001, 1000), 0u);
}

}  // namespace
}  // namespace corvid
