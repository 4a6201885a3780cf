#include <fmt/format.h>

#include <chrono>
#include <future>
#include <utility>

#include "tests/daemon/AgentFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class Acceptance : public AgentTest {};

TEST_F(Acceptance, RefusesAConnectionWithoutTheEntitlement) {
  auto connection = std::make_shared<FakeConnection>("stranger");
  EXPECT_FALSE(agent->shouldAcceptNewConnection(connection));
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: new IPC connection stranger does not have required corvid entitlement. Closing connection..."));
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(connection->exportedObject, nullptr);
  EXPECT_FALSE(connection->resumed);
  EXPECT_EQ(platform.keepAlive->begun, 0);
}

TEST_F(Acceptance, TakesTheEntitlementOnlyAsATrueBoolean) {
  for (const Value& value : {Value(false), Value(1), Value(1.0), Value("true"), Value()}) {
    auto connection = std::make_shared<FakeConnection>();
    connection->entitlements.set("com.halcyon.private.corvidd", value);
    EXPECT_FALSE(agent->shouldAcceptNewConnection(connection));
  }
  auto connection = newConnection();
  EXPECT_TRUE(agent->shouldAcceptNewConnection(connection));
}

TEST_F(Acceptance, ReportsZeroForBothCountsAtTheFirstConnection) {
  connect("first");
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: Accepting new IPC connection first as it has proper entitlement, 0(0) connections."));
}

TEST_F(Acceptance, CountsSessionsAndGroupsBeforeTheNewSession) {
  join(1, 0, false, "Player");
  join(2, 0, false, "Player");
  join(3, 0, false, "Recorder");
  connect("fourth");
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: Accepting new IPC connection fourth as it has proper entitlement, 3(2) connections."));
}

TEST_F(Acceptance, ARefusalChangesNeitherCount) {
  agent->shouldAcceptNewConnection(std::make_shared<FakeConnection>());
  connect("first");
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: Accepting new IPC connection first as it has proper entitlement, 0(0) connections."));
}

TEST_F(Acceptance, TheCountsFollowInvalidationButGroupsStay) {
  connectionOf(join(1, 0)).clientVanishes();
  connect("second");
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: Accepting new IPC connection second as it has proper entitlement, 0(1) connections."));
}

TEST_F(Acceptance, ExportsANewSessionAndResumesTheConnection) {
  const auto connection = connect();
  EXPECT_NE(connection->exportedObject, nullptr);
  EXPECT_TRUE(connection->resumed);
  EXPECT_TRUE(
      log.has(LogLevel::debug,
              fmt::format("initWithSessionDelegate: CorviddSession initWithSessionDelegate:{}",
                          agent->description())));
}

TEST_F(Acceptance, EverythingIsSetUpBeforeTheConnectionIsResumed) {
  const auto connection = newConnection();
  bool wasReady = false;
  connection->onResume = [&] {
    wasReady =
        connection->exportedObject && connection->hasHandlers() && platform.keepAlive->begun == 1;
  };
  EXPECT_TRUE(agent->shouldAcceptNewConnection(connection));
  EXPECT_TRUE(wasReady);
}

TEST_F(Acceptance, TheSessionReachesTheClientOfItsOwnConnection) {
  const auto other = connect();
  CorviddSession& session = join(1, 0, true);
  const std::size_t before = connectionOf(session).deliveries().size();
  session.sendMessageWithCategory(3, 4, std::nullopt, {});
  ASSERT_EQ(connectionOf(session).deliveries().size(), before + 1);
  EXPECT_EQ(connectionOf(session).deliveries().back().category, 3);
  EXPECT_TRUE(other->deliveries().empty());
}

TEST_F(Acceptance, GivesEachConnectionASessionOfItsOwn) {
  EXPECT_NE(&sessionOf(*connect()), &sessionOf(*connect()));
}

TEST_F(Acceptance, KeepsAliveFromTheFirstSessionToTheLast) {
  const auto first = connect();
  EXPECT_EQ(platform.keepAlive->begun, 1);
  const auto second = connect();
  EXPECT_EQ(platform.keepAlive->begun, 1);
  first->clientVanishes();
  EXPECT_EQ(platform.keepAlive->ended, 0);
  second->clientVanishes();
  EXPECT_EQ(platform.keepAlive->ended, 1);

  connect()->clientVanishes();
  EXPECT_EQ(platform.keepAlive->begun, 2);
  EXPECT_EQ(platform.keepAlive->ended, 2);
}

TEST_F(Acceptance, AnInterruptionIsOnlyLogged) {
  const auto connection = connect();
  const std::string session = sessionOf(*connection).description();
  log.clear();
  connection->interrupt();
  EXPECT_TRUE(log.has(LogLevel::debug,
                      fmt::format("listener: IPC connection to {} was interrupted", session)));
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(platform.keepAlive->ended, 0);
}

TEST_F(Acceptance, AnInvalidationIsLoggedWithTheSessionBeforeAnythingElse) {
  const auto connection = connect();
  const std::string session = sessionOf(*connection).description();
  log.clear();
  connection->clientVanishes();
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().front().first, LogLevel::debug);
  EXPECT_EQ(log.lines().front().second,
            fmt::format("listener: IPC connection to {} was invalidated", session));
}

TEST_F(Acceptance, TheSessionEndsWithItsConnection) {
  std::weak_ptr<CorviddSession> session = join(1, 0).weak_from_this();
  connectionOf(*session.lock()).clientVanishes();
  EXPECT_TRUE(session.expired());
}

TEST_F(Acceptance, InvalidationTakesTheSessionOutOfItsGroup) {
  CorviddSession& parent = join(1, 0);
  CorviddSession& child = join(2, 1);
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), parent.sessionIDString());
  connectionOf(parent).clientVanishes();
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), std::nullopt);
}

TEST_F(Acceptance, InvalidationOfASessionThatJoinedNoGroupLeavesTheGroups) {
  CorviddSession& parent = join(1, 0);
  CorviddSession& child = join(2, 1);
  connectionOf(connectAs(3, 8, userInfo("Nobody", "Else"))).clientVanishes();
  connectionOf(connectAs(4, 8, userInfo("Player", "Feed"))).clientVanishes();
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), parent.sessionIDString());
}

// The list of sessions is done with before the groups are waited for: the two locks never nest.
TEST_F(Acceptance, InvalidationEndsTheTransactionBeforeItLocksTheGroups) {
  const auto connection = connect();
  std::future<void> invalidated;
  {
    const RecursiveLock lock(agent->mutex());
    invalidated = std::async(std::launch::async, [&] { connection->clientVanishes(); });
    EXPECT_TRUE(waitUntil([&] { return platform.keepAlive->ended == 1; }));
    auto accepted = std::async(std::launch::async, [this] { connect(); });
    EXPECT_EQ(accepted.wait_for(patience), std::future_status::ready);
    EXPECT_NE(connection->exportedObject, nullptr);
  }
  EXPECT_EQ(invalidated.wait_for(patience), std::future_status::ready);
}

TEST_F(Acceptance, ASessionWhoseUserInfoWasReplacedLeavesNothingBehind) {
  std::weak_ptr<CorviddSession> session = join(1, 0).weak_from_this();
  session.lock()->setSessionInfo({}, userInfo("Other", "Name"), {}, false);
  connectionOf(*session.lock()).clientVanishes();
  EXPECT_TRUE(session.expired());
}

TEST_F(Acceptance, TheAgentEndsAfterItsLastSession) {
  std::weak_ptr<CorviddAgent> weak = agent;
  const auto connection = connect();
  agent = nullptr;
  EXPECT_FALSE(weak.expired());
  connection->clientVanishes();
  EXPECT_TRUE(weak.expired());
}

// A fetch that holds the agent's mutex until it is let go.
class DuringAFetch : public AgentTest {
 protected:
  DuringAFetch() {
    waiting = &connectAs(1, 8);
    answerFetch = [this](std::int32_t) {
      begun.set_value();
      released.get_future().wait();
      return FetchedStorebag{.storebag = Dictionary{}, .maxAge = 3600, .version = "of this fetch"};
    };
    fetch = std::async(std::launch::async,
                       [this] { EXPECT_TRUE(agent->storebagForSession(*waiting)); });
    begun.get_future().wait();
  }
  ~DuringAFetch() override { letGo(); }
  void letGo() {
    if (!std::exchange(letGoAlready, true)) released.set_value();
    fetch.wait();
  }

  CorviddSession* waiting;
  std::promise<void> begun;
  std::promise<void> released;
  bool letGoAlready = false;
  std::future<void> fetch;
};

TEST_F(DuringAFetch, AConnectionIsAcceptedWithoutWaiting) {
  auto accepted = std::async(std::launch::async, [this] { connect("late"); });
  ASSERT_EQ(accepted.wait_for(patience), std::future_status::ready);
  accepted.get();
  EXPECT_TRUE(log.has(
      LogLevel::debug,
      "listener: Accepting new IPC connection late as it has proper entitlement, 1(0) connections."));
}

TEST_F(DuringAFetch, AnInvalidationEndsOnceTheFetchHasEnded) {
  const auto leaving = connect();
  auto invalidated = std::async(std::launch::async, [&] { leaving->clientVanishes(); });
  letGo();
  ASSERT_EQ(invalidated.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(leaving->exportedObject, nullptr);
}

TEST_F(DuringAFetch, AVersionIsToldOnceTheFetchHasEnded) {
  auto version =
      std::async(std::launch::async, [this] { return agent->storebagVersionForSession(*waiting); });
  EXPECT_EQ(version.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  letGo();
  ASSERT_EQ(version.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(version.get(), "of this fetch");
}

TEST_F(DuringAFetch, AnotherSessionWaitsAndThenUsesTheSameRecord) {
  CorviddSession& second = connectAs(2, 8);
  auto served =
      std::async(std::launch::async, [&] { return agent->storebagForSession(second).value(); });
  EXPECT_EQ(served.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  letGo();
  ASSERT_EQ(served.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(fetches.size(), 1u);
}

}  // namespace
}  // namespace corvid
