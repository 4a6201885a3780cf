// Which client gets the messages of a chain, with the real agent between real sessions.
#include <chrono>
#include <future>

#include "protocol/Keys.h"
#include "tests/daemon/AgentFixture.h"
#include "tests/session/LockProbe.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class Aggregation : public AgentTest {
 protected:
  static void send(CorviddSession& session, std::uint16_t category,
                   std::optional<Dictionary> payload = std::nullopt) {
    session.sendMessageWithCategory(category, 2, std::move(payload), {});
  }
  // What the session's client got with this category.
  std::vector<FakeConnection::Delivery> delivered(CorviddSession& session, std::uint16_t category) {
    auto deliveries = connectionOf(session).deliveries();
    std::erase_if(deliveries, [&](const auto& each) { return each.category != category; });
    return deliveries;
  }
  // Describes the session again, as a client may at any time, and starts it again.
  void describeAgain(CorviddSession& session, bool aggregates) {
    session.setSessionInfo(*session.sessionInfo(), *session.userInfo(), {}, aggregates);
    session.startConfigWithCompletionHandler({});
  }
};

TEST_F(Aggregation, EveryMessageOfTheChainGoesToTheClientOfTheTopmostAggregator) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  send(grandchild, 40, Dictionary{{"action", "play"}, {"_clientName", "mine"}});
  send(child, 41);
  send(top, 42, Dictionary{});
  ASSERT_EQ(delivered(top, 40).size(), 1u);
  const auto delivery = delivered(top, 40).front();
  EXPECT_EQ(delivery.message, *grandchild.sessionInfo());
  EXPECT_EQ(delivery.timestamp, platform.clock->now().asDouble());
  EXPECT_EQ(delivery.type, 2);
  EXPECT_EQ(delivery.payload,
            (Dictionary{{"action", "play"}, {"_clientName", "Player"}, {"_serviceName", "Feed"}}));
  ASSERT_EQ(delivered(top, 41).size(), 1u);
  EXPECT_EQ(delivered(top, 41).front().payload, std::nullopt);
  ASSERT_EQ(delivered(top, 42).size(), 1u);
  EXPECT_EQ(delivered(top, 42).front().payload, userInfo("Player", "Feed"));
  for (std::uint16_t category = 40; category <= 42; ++category) {
    EXPECT_TRUE(delivered(child, category).empty());
    EXPECT_TRUE(delivered(grandchild, category).empty());
  }
}

TEST_F(Aggregation, AMiddleSessionAggregatesForThoseBelowItOnly) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  for (CorviddSession* each : {&top, &child, &grandchild})
    send(*each, static_cast<std::uint16_t>(40 + each->sessionID()));
  EXPECT_EQ(delivered(child, 41).size(), 0u);
  EXPECT_EQ(delivered(child, 42).size(), 1u);
  EXPECT_EQ(delivered(child, 43).size(), 1u);
}

TEST_F(Aggregation, SessionsOfOtherChainsAreNotOffered) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& stranger = join(2, 1, false, "Recorder");
  send(stranger, 40);
  EXPECT_TRUE(delivered(top, 40).empty());
}

TEST_F(Aggregation, StartAndEndMessagesOfAChildAreOfferedToo) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1);
  const Dictionary childsInfo = *child.sessionInfo();
  connectionOf(child).clientVanishes();
  std::vector<std::uint16_t> types;
  for (const auto& delivery : delivered(top, 0))
    if (delivery.message == childsInfo) types.push_back(delivery.type);
  EXPECT_EQ(types, (std::vector<std::uint16_t>{0, 1}));
}

TEST_F(Aggregation, ThatEndedUnderAnAncestorDoesNotComeBackWhenTheAncestorLeaves) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1, true);
  connectionOf(top).clientVanishes();
  EXPECT_FALSE(child.hasAggregator());
  agent->updateDownstreamSessions(child);
  EXPECT_FALSE(child.hasAggregator());
  send(child, 40);
  EXPECT_TRUE(delivered(child, 40).empty());
}

TEST_F(Aggregation, ComesBackWhenTheClientDescribesItselfAgainAndNobodyAboveAggregates) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1, true);
  describeAgain(child, true);
  EXPECT_FALSE(child.hasAggregator());
  connectionOf(top).clientVanishes();
  describeAgain(child, true);
  EXPECT_TRUE(child.hasAggregator());
  send(child, 40);
  EXPECT_EQ(delivered(child, 40).size(), 1u);
}

TEST_F(Aggregation, OfASessionThatMovesAwayEndsForTheOldChain) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1);
  top.fetchStatesWithUserInfo(userInfo("Recorder", "Feed"), {});
  send(child, 40);
  EXPECT_TRUE(delivered(top, 40).empty());
  CorviddSession& other = join(3, 1, false, "Recorder");
  send(other, 41);
  EXPECT_EQ(delivered(top, 41).size(), 1u);
}

// An ancestor that goes while a message is on its way to its client.

TEST_F(Aggregation, AnAncestorThatVanishesInADeliveryStillGetsIt) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1);
  FakeConnection& topsClient = connectionOf(top);
  const std::weak_ptr<CorviddSession> ended = top.weak_from_this();
  const auto deliveriesBefore = topsClient.deliveries().size();
  LockProbe probe(agent->mutex());
  std::future<void> vanishing;
  bool freeAtTheEnd = false;
  int calls = 0;
  topsClient.onDelivery = [&] {
    if (++calls == 1) {
      EXPECT_TRUE(probe.isHeld());
      vanishing = std::async(std::launch::async, [&] { topsClient.clientVanishes(); });
      EXPECT_EQ(vanishing.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    } else {
      freeAtTheEnd = probe.isFree();  // its own end message and shutdown
    }
  };
  send(child, 40);
  ASSERT_TRUE(vanishing.valid());
  ASSERT_EQ(vanishing.wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(ended.expired());
  EXPECT_TRUE(freeAtTheEnd);
  const auto deliveries = topsClient.deliveries();
  ASSERT_EQ(deliveries.size(), deliveriesBefore + 3);
  EXPECT_EQ(deliveries[deliveriesBefore].category, 40);
  topsClient.onDelivery = nullptr;
  send(child, 41);
  EXPECT_EQ(topsClient.deliveries().size(), deliveries.size());
}

TEST_F(Aggregation, AnUnreachableAncestorCostsTheSenderOneErrorLineAndNothingElse) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1);
  connectionOf(top).deliveryError = "the connection is gone";
  log.clear();
  const std::size_t postsBefore = platform.http->requests().size();
  child.sendMessageWithDictionary(Dictionary{{"Category", 40}, {"Type", 2}, {"Flag", 1}}, {});
  EXPECT_EQ(log.texts(LogLevel::error),
            (std::vector<std::string>{
                "sendMessageWithDictionary: Failed to get remote object proxy: the connection is "
                "gone"}));
  EXPECT_GT(platform.http->requests().size(), postsBefore);
}

}  // namespace
}  // namespace corvid
