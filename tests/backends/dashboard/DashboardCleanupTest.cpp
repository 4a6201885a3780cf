// The end of a dashboard backend.
#include "tests/backends/dashboard/DashboardFixture.h"

namespace corvid {
namespace {

using Fate = PacketFate;
using Lines = std::vector<std::string>;

constexpr const char* cleanLine = "DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.";
constexpr const char* lastResortLine =
    "DashboardBackend(myPeriodicTask): scheduled last resort clean-up in 9500 ms.";

class DashboardCleanupTest : public DashboardFixture {
 protected:
  void cleanUp() {
    backend->cleanup();
    network.runTasks();
  }
  // No source is left and the socket is closed.
  bool isOver() {
    return network.timers() + network.readSources() + network.delayedTasks() == 0 &&
           !network.socket().isOpen;
  }
};

TEST_F(DashboardCleanupTest, WithNothingQueuedEverythingEndsWithoutATick) {
  for (const Dictionary& profile : {plainProfile(), reliableProfile()}) {
    ASSERT_TRUE(make(profile));
    backend->cleanup();
    EXPECT_TRUE(network.socket().isOpen) << "only asked so far";
    network.runTasks();
    EXPECT_TRUE(isOver());
    EXPECT_EQ(debugLines(), Lines{});
    cleanUp();
    EXPECT_TRUE(isOver()) << "a second time finds nothing to do";
  }
}

TEST_F(DashboardCleanupTest, EndsAtTheTickThatFindsTheQueueDrained) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  EXPECT_TRUE(network.socket().isOpen);
  acknowledge(1);
  EXPECT_TRUE(network.socket().isOpen) << "until the tick";
  EXPECT_EQ(network.armedTimers(), 1u) << "the end is near";
  advanceTicks(1);
  EXPECT_TRUE(isOver());
  EXPECT_EQ(debugLines(), Lines{cleanLine});
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
}

TEST_F(DashboardCleanupTest, SchedulesTheLastResortOnce) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  EXPECT_EQ(network.delayedTasks(), 0u);
  advanceTicks(4);
  EXPECT_EQ(network.delayedTasks(), 1u);
  EXPECT_EQ(debugLines(), Lines{lastResortLine});
}

TEST_F(DashboardCleanupTest, BeingAskedAgainSaysSoAgainAndDelaysNothing) {
  ASSERT_TRUE(make(plainProfile()));
  network.refusesSends = true;
  send(1);
  cleanUp();
  advanceTicks(4);
  cleanUp();
  advanceTicks(4);
  EXPECT_EQ(debugLines(), Lines(2, lastResortLine));
  EXPECT_EQ(network.delayedTasks(), 1u);
  network.advance(std::chrono::milliseconds(9500) - tick * 7 - std::chrono::milliseconds(1));
  EXPECT_TRUE(network.socket().isOpen);
  network.advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(isOver()) << "9.5 seconds after the tick that saw the first request";
}

TEST_F(DashboardCleanupTest, EndsEarlyWhereTheQueueDrainsAfterTheLastResortWasScheduled) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  advanceTicks(4);
  acknowledge(1);
  advanceTicks(1);
  EXPECT_TRUE(isOver()) << "and the last resort with it";
  EXPECT_EQ(debugLines(), (Lines{lastResortLine, cleanLine}));
}

TEST_F(DashboardCleanupTest, TheLastResortComes9500MillisecondsAfterTheFirstTick) {
  ASSERT_TRUE(make(plainProfile()));
  network.refusesSends = true;
  send(1);
  cleanUp();
  advanceTicks(1);
  network.advance(std::chrono::milliseconds(9499));
  EXPECT_TRUE(network.socket().isOpen);
  network.advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(isOver());
  EXPECT_EQ(debugLines(), Lines{lastResortLine});
}

TEST_F(DashboardCleanupTest, WhatIsNeverAcknowledgedStillGetsItsFiveTransmissions) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  advanceTicks(20);
  EXPECT_EQ(sent(), 5u);
  EXPECT_TRUE(isOver());
}

TEST_F(DashboardCleanupTest, ALateAcknowledgementStillCounts) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  advanceTicks(12);
  acknowledge(1);
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
}

TEST_F(DashboardCleanupTest, EventsSentBeforeTheEndTravelToo) {
  ASSERT_TRUE(make(reliableProfile()));
  backend->packets().send(nullptr, {}, 7, 2, EventID{1});
  backend->cleanup();
  network.runTasks();
  EXPECT_EQ(sent(), 1u);
  EXPECT_TRUE(network.socket().isOpen);
}

TEST_F(DashboardCleanupTest, PacketsOutliveABackendThatWasCleanedUp) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  backend->cleanup();
  backend.reset();
  advanceTicks(3);
  EXPECT_TRUE(network.socket().isOpen);
  EXPECT_EQ(sent(), 2u);
  acknowledge(1);
  advanceTicks(1);
  EXPECT_TRUE(isOver());
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
}

TEST_F(DashboardCleanupTest, PacketsDoNotOutliveTheLastResort) {
  ASSERT_TRUE(make(plainProfile()));
  network.refusesSends = true;
  send(1);
  backend->cleanup();
  backend.reset();
  network.advance(std::chrono::milliseconds(9999));
  EXPECT_TRUE(network.socket().isOpen);
  network.advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(isOver());
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

TEST_F(DashboardCleanupTest, ABackendThatIsLetGoWithoutCleanupLeavesNothingBehind) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  backend->packets().send(nullptr, {}, 7, 2, EventID{2});
  backend.reset();
  network.runTasks();
  EXPECT_TRUE(isOver());
  EXPECT_EQ(sent(), 2u) << "what was on its way to the queue went out";
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}, {2, Fate::dropped}}));
}

TEST_F(DashboardCleanupTest, WithoutAReadSourceOnlyItsOwnerClosesTheSocket) {
  network.refusesReadSources = true;
  ASSERT_TRUE(make(reliableProfile()));
  cleanUp();
  EXPECT_EQ(network.timers(), 0u);
  EXPECT_TRUE(network.socket().isOpen);
  backend.reset();
  EXPECT_FALSE(network.socket().isOpen);
}

TEST_F(DashboardCleanupTest, AnEventSentAfterTheEndGoesNowhere) {
  ASSERT_TRUE(make(reliableProfile()));
  cleanUp();
  EXPECT_NE(send(1), "(none)") << "the line is there all the same";
  EXPECT_EQ(network.socket().attempts, 0);
  EXPECT_FALSE(network.isBusy());
  cleanUp();
  EXPECT_FALSE(network.isBusy());
  backend.reset();
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

TEST_F(DashboardCleanupTest, ANetworkThatEndsTakesWhatWaitsWithIt) {
  ASSERT_TRUE(make(reliableProfile()));
  send(1);
  cleanUp();
  backend.reset();
  EXPECT_TRUE(network.socket().isOpen);
  network.stop();
  EXPECT_FALSE(network.socket().isOpen);
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

}  // namespace
}  // namespace corvid
