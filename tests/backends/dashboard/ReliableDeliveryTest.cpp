// The queue, the schedule and the acknowledgements, by a clock that is advanced by hand.
#include <algorithm>

#include "tests/backends/dashboard/DashboardFixture.h"

namespace corvid {
namespace {

using Fate = PacketFate;

class ReliableDeliveryTest : public DashboardFixture {
 protected:
  ReliableDeliveryTest() { make(reliableProfile()); }
};
class PlainDeliveryTest : public DashboardFixture {
 protected:
  PlainDeliveryTest() { make(plainProfile()); }
};

TEST_F(PlainDeliveryTest, WhatWasSentIsNotQueued) {
  send(1);
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(fates, (Fates{{1, Fate::sent}}));
  EXPECT_EQ(network.armedTimers(), 0u);
  advanceTicks(40);
  EXPECT_EQ(sent(), 1u) << "nothing is sent again";
}

TEST_F(PlainDeliveryTest, WhatCouldNotBeSentIsTriedAtEachTickUntilItIsSent) {
  network.refusesSends = true;
  send(1);
  EXPECT_EQ(network.socket().attempts, 1);
  advanceTicks(100);
  EXPECT_EQ(network.socket().attempts, 101) << "without limit";
  EXPECT_EQ(fates, Fates{});
  network.refusesSends = false;
  advanceTicks(1);
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(fates, (Fates{{1, Fate::sent}}));
  EXPECT_EQ(network.armedTimers(), 0u);
  advanceTicks(10);
  EXPECT_EQ(sent(), 1u);
}

TEST_F(PlainDeliveryTest, EachTickSendsAllThatWaitInOrder) {
  network.refusesSends = true;
  for (const int event : {3, 1, 2}) send(event);
  network.refusesSends = false;
  advanceTicks(1);
  EXPECT_EQ(eventsSent(), (std::vector{3, 1, 2}));
  EXPECT_EQ(fates, (Fates{{3, Fate::sent}, {1, Fate::sent}, {2, Fate::sent}}));
}

TEST_F(PlainDeliveryTest, NobodyReadsTheSocket) {
  EXPECT_EQ(network.readSources(), 0u);
  EXPECT_FALSE(network.socket().isBound);
}

TEST_F(ReliableDeliveryTest, SendsAgainOnTheScheduleAndThenDrops) {
  send(1);
  std::vector<int> ticksThatSent;
  for (int now = 1; now <= 30; ++now) {
    const std::size_t before = sent();
    advanceTicks(1);
    if (sent() > before) ticksThatSent.push_back(now);
    EXPECT_EQ(fates.empty(), now < 20) << now;
  }
  EXPECT_EQ(ticksThatSent, (std::vector{2, 5, 10, 19}));
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
  EXPECT_EQ(sent(), 5u);
  EXPECT_TRUE(std::ranges::all_of(network.socket().sent, [&](const std::string& datagram) {
    return datagram == network.socket().sent.front();
  }));
  EXPECT_EQ(errors(), std::vector<std::string>{}) << "a drop is silent";
}

TEST_F(ReliableDeliveryTest, TicksStayOnTheGridWhateverTheMomentOfTheSend) {
  network.advance(tick * 3 + std::chrono::milliseconds(499));
  send(1);
  network.advance(std::chrono::milliseconds(1 + 499));
  EXPECT_EQ(sent(), 1u) << "one tick, a millisecond after the send";
  network.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(sent(), 2u) << "the second tick";
}

TEST_F(ReliableDeliveryTest, AnAcknowledgementBeforeTheFirstTickEndsIt) {
  send(1);
  acknowledge(1);
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
  EXPECT_EQ(network.armedTimers(), 0u);
  advanceTicks(30);
  EXPECT_EQ(sent(), 1u);
}

TEST_F(ReliableDeliveryTest, ADuplicateAcknowledgementIsIgnored) {
  send(1);
  send(2);
  acknowledge(1);
  acknowledge(1);
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
  EXPECT_EQ(network.armedTimers(), 1u) << "2 still waits";
}

TEST_F(ReliableDeliveryTest, AnAcknowledgementMayComeAfterAnyTransmission) {
  for (int event = 1; event <= 4; ++event) {
    send(event);
    advanceTicks(event * 4);
    acknowledge(event);
    EXPECT_EQ(fates.back(), std::pair(event, Fate::acknowledged));
  }
}

TEST_F(ReliableDeliveryTest, AnAcknowledgementThatMatchesNothingIsIgnored) {
  send(258);
  acknowledge(1);
  acknowledge(0x0201);
  network.deliver("");
  network.deliver(std::string(61, '\1'));
  EXPECT_EQ(fates, Fates{});
  network.deliver(std::string(60, 'x') + "\1\2" + std::string(1500, 'x'));
  EXPECT_EQ(fates, (Fates{{258, Fate::acknowledged}}))
      << "two bytes count, whatever surrounds them";
}

TEST_F(ReliableDeliveryTest, AnAcknowledgementEndsTheOldestOfOneNumberOnly) {
  send(7);
  send(7);
  acknowledge(7);
  EXPECT_EQ(fates.size(), 1u);
  acknowledge(7);
  EXPECT_EQ(fates.size(), 2u);
}

TEST_F(ReliableDeliveryTest, AnAcknowledgementEndsAPacketThatWasNeverSent) {
  network.refusesSends = true;
  send(1);
  acknowledge(1);
  EXPECT_EQ(fates, (Fates{{1, Fate::acknowledged}}));
  network.refusesSends = false;
  advanceTicks(3);
  EXPECT_EQ(sent(), 0u);
}

TEST_F(ReliableDeliveryTest, AFirstSendThatFailsIsRepeatedAtEachTickAndThenCountsFromThere) {
  network.refusesSends = true;
  send(1);
  advanceTicks(5);
  EXPECT_EQ(network.socket().attempts, 6);
  network.refusesSends = false;
  advanceTicks(1);
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(fates, Fates{}) << "waits for its acknowledgement now";
  advanceTicks(1);
  EXPECT_EQ(sent(), 1u);
  advanceTicks(1);
  EXPECT_EQ(sent(), 2u) << "two ticks after the first transmission";
}

TEST_F(ReliableDeliveryTest, ARepeatThatFailsIsTriedAtTheNextTick) {
  send(1);
  advanceTicks(1);
  network.refusesSends = true;
  advanceTicks(3);
  EXPECT_EQ(network.socket().attempts, 4) << "ticks 2, 3 and 4 tried";
  network.refusesSends = false;
  advanceTicks(1);
  EXPECT_EQ(sent(), 2u);
  advanceTicks(2);
  EXPECT_EQ(sent(), 2u);
  advanceTicks(1);
  EXPECT_EQ(sent(), 3u) << "three ticks after the repeat that went out";
}

TEST_F(ReliableDeliveryTest, TheFiftyFirstPacketPushesTheOldestOut) {
  for (int event = 1; event <= 50; ++event) send(event);
  EXPECT_EQ(fates, Fates{});
  send(51);
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
  acknowledge(1);
  EXPECT_EQ(fates.size(), 1u);
  acknowledge(2);
  send(52);
  EXPECT_EQ(fates.size(), 2u) << "there was room";
}

TEST_F(ReliableDeliveryTest, TheOldestIsPushedOutEvenIfItWasNeverSent) {
  network.refusesSends = true;
  send(1);
  network.refusesSends = false;
  for (int event = 2; event <= 51; ++event) send(event);
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

TEST_F(ReliableDeliveryTest, OneTickHandlesPacketsInEveryState) {
  send(1);
  advanceTicks(19);  // sent five times: the next tick drops it
  network.refusesSends = true;
  send(2);
  network.refusesSends = false;
  send(3);
  const std::size_t before = sent();
  advanceTicks(1);
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
  EXPECT_EQ(sent(), before + 1);
  EXPECT_EQ(eventsSent().back(), 2) << "the packet behind the dropped one was not passed over";
}

TEST_F(ReliableDeliveryTest, TheTimerSleepsWhileNothingWaits) {
  EXPECT_EQ(network.timers(), 1u);
  EXPECT_EQ(network.armedTimers(), 0u);
  EXPECT_FALSE(network.isBusy());
  send(1);
  EXPECT_EQ(network.armedTimers(), 1u);
  EXPECT_TRUE(network.isBusy());
  advanceTicks(20);
  EXPECT_EQ(network.armedTimers(), 0u);
  EXPECT_FALSE(network.isBusy());
  send(2);
  EXPECT_EQ(network.armedTimers(), 1u);
}

TEST_F(DashboardFixture, AShorterPeriodShortensTheWholeSchedule) {
  Dictionary profile = reliableProfile();
  profile.set("reliable", 250);
  ASSERT_TRUE(make(profile));
  EXPECT_EQ(network.periods, (std::vector{std::chrono::milliseconds(250)}));
  send(1);
  network.advance(std::chrono::milliseconds(4749));
  EXPECT_EQ(sent(), 4u);
  network.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(sent(), 5u) << "4.75 s instead of 9.5";
  network.advance(std::chrono::milliseconds(250));
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

TEST_F(DashboardFixture, WithoutAReadSourcePacketsAreRepeatedUntilTheyAreDropped) {
  network.refusesReadSources = true;
  ASSERT_TRUE(make(reliableProfile()));
  EXPECT_EQ(errors(),
            std::vector<std::string>{"DashboardBackend(useReliableUDP): can't create read source"});
  send(1);
  acknowledge(1);
  EXPECT_EQ(lastHeader().flags, packetFlagReliable);
  advanceTicks(20);
  EXPECT_EQ(sent(), 5u);
  EXPECT_EQ(fates, (Fates{{1, Fate::dropped}}));
}

TEST_F(DashboardFixture, WithoutABoundSocketTheModeIsPlain) {
  network.bindError = 98;
  ASSERT_TRUE(makeExplicit());
  EXPECT_EQ(errors(),
            std::vector<std::string>{"DashboardBackend(useReliableUDP): can't bind socket, 98"});
  EXPECT_EQ(network.readSources(), 0u);
  send(1);
  EXPECT_EQ(lastHeader().flags, packetFlagExplicitAddress);
  EXPECT_EQ(fates, (Fates{{1, Fate::sent}}));
}

}  // namespace
}  // namespace corvid
