#include <gtest/gtest.h>

#include "base/Heartbeat.h"

namespace corvid {
namespace {

struct HeartbeatTest : testing::Test {
  int woken = 0;
  Heartbeat heartbeat{"test", [this] { ++woken; }};
};

TEST_F(HeartbeatTest, ALoopThatDoesNotRunHasAnsweredAndIsNotWoken) {
  heartbeat.ask();
  EXPECT_TRUE(heartbeat.hasAnswered());
  EXPECT_EQ(woken, 0);
}

TEST_F(HeartbeatTest, ALoopThatRunsIsWokenAndAnswersWhenItGoesRound) {
  const Heartbeat::Running running(heartbeat);
  EXPECT_TRUE(heartbeat.hasAnswered()) << "nobody has asked";
  heartbeat.ask();
  EXPECT_EQ(woken, 1);
  EXPECT_FALSE(heartbeat.hasAnswered());
  heartbeat.beat();
  EXPECT_TRUE(heartbeat.hasAnswered());
}

TEST_F(HeartbeatTest, ALoopThatHasEndedOwesNoAnswer) {
  {
    const Heartbeat::Running running(heartbeat);
    heartbeat.ask();
  }
  EXPECT_TRUE(heartbeat.hasAnswered());
}

}  // namespace
}  // namespace corvid
