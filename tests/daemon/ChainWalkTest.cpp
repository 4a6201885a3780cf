// Walks over a chain: what is held meanwhile, who waits, and in which order things happen.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>

#include "protocol/Keys.h"
#include "tests/daemon/AgentFixture.h"
#include "tests/session/LockProbe.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr LogLevel debug = LogLevel::debug;
// Long enough for a thread that nothing holds up, short enough for one that must wait.
constexpr std::chrono::milliseconds aWhile{50};

class ChainWalk : public AgentTest {
 protected:
  // Where the first line that contains the text stands in the log.
  std::ptrdiff_t place(const std::string& text) const {
    const auto lines = log.lines();
    const auto found = std::ranges::find_if(
        lines, [&](const auto& line) { return line.second.find(text) != std::string::npos; });
    EXPECT_NE(found, lines.end()) << text;
    return found - lines.begin();
  }
  static std::string updating(const CorviddSession& session) {
    return fmt::format(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        session.sessionID());
  }
  static bool hasEnded(const std::future<void>& work, std::chrono::milliseconds within) {
    return work.wait_for(within) == std::future_status::ready;
  }

  LockProbe probe{agent->mutex()};
};

// Who takes the mutex

TEST_F(ChainWalk, TheOperationsThatSessionsCallFreelyTakeTheMutexThemselves) {
  join(1, 0);
  CorviddSession& child = join(2, 1);
  const std::vector<std::function<void()>> operations{
      [&] { agent->userInfoUpdatedForSession(child); },
      [&] { agent->parentSessionIDStringForSession(child); },
      [&] { agent->updateDownstreamSessions(child); }};
  for (const auto& operation : operations) {
    std::future<void> work;
    {
      const RecursiveLock lock(agent->mutex());
      work = std::async(std::launch::async, operation);
      EXPECT_FALSE(hasEnded(work, aWhile));
    }
    EXPECT_TRUE(hasEnded(work, patience));
    EXPECT_TRUE(probe.isFree());
  }
}

TEST_F(ChainWalk, ASessionThatCannotJoinOrHasNothingAboveItDoesNotWaitForTheMutex) {
  CorviddSession& top = join(1, 0);
  CorviddSession& nobody = connectAs(7, 8);
  std::future<void> work;
  const RecursiveLock lock(agent->mutex());
  work = std::async(std::launch::async, [&] {
    agent->userInfoUpdatedForSession(nobody);
    agent->updateDownstreamSessions(nobody);
    EXPECT_EQ(agent->parentSessionIDStringForSession(top), std::nullopt);
  });
  EXPECT_TRUE(hasEnded(work, patience));
}

TEST_F(ChainWalk, TheMutexIsFreeAfterEveryWayOutOfTheWalkToTheTop) {
  CorviddSession& child = join(2, 1);  // a gap
  agent->parentSessionIDStringForSession(child);
  EXPECT_TRUE(probe.isFree());
  child.setSessionInfo(*child.sessionInfo(), userInfo("Nobody", "Here"), {}, false);
  agent->parentSessionIDStringForSession(child);  // no group
  EXPECT_TRUE(probe.isFree());
  join(3, 0, false, "Nobody");
  child.setSessionInfo(*child.sessionInfo(), userInfo("Nobody", "Feed"), {}, false);
  agent->parentSessionIDStringForSession(child);  // not in the group
  EXPECT_TRUE(probe.isFree());
}

// Each session of a walk calls the agent again, which only the thread that walks may do.
TEST_F(ChainWalk, SessionsMayAskTheAgentAgainWhileItWalks) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1);
  CorviddSession& grandchild = join(3, 2);
  const std::string topID = top.sessionIDString();
  log.clear();
  auto walk = std::async(std::launch::async, [&] {
    const RecursiveLock lock(agent->mutex());
    agent->updateDownstreamSessions(top);
  });
  ASSERT_TRUE(hasEnded(walk, patience));
  EXPECT_TRUE(log.has(
      debug,
      fmt::format(
          "updateCombinedSessionID: Updating combined session ID '{}.{}.{}' for session 3 backends",
          topID, child.sessionIDString(), grandchild.sessionIDString())));
  EXPECT_TRUE(probe.isFree());
}

// What nobody sees half done

TEST_F(ChainWalk, TheMutexIsHeldFromTheFirstSessionToTheLast) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  top.setHasAggregator(true);
  grandchild.setHasAggregator(true);
  int held = 0;
  for (CorviddSession* each : {&child, &grandchild})
    connectionOf(*each).onDelivery = [&] { held += probe.isHeld(); };
  agent->updateDownstreamSessions(top);
  EXPECT_EQ(held, 2);
  EXPECT_TRUE(probe.isFree());
  for (CorviddSession* each : {&child, &grandchild}) connectionOf(*each).onDelivery = nullptr;
}

TEST_F(ChainWalk, ASessionThatJoinsMeanwhileJoinsAfterTheLast) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  CorviddSession& newcomer = connectAs(9, 8, userInfo("Player", "Feed"));
  std::future<void> joining;
  connectionOf(child).onDelivery = [&] {
    joining = std::async(std::launch::async, [&] { agent->userInfoUpdatedForSession(newcomer); });
    EXPECT_FALSE(hasEnded(joining, aWhile));
  };
  top.setHasAggregator(true);
  log.clear();
  agent->updateDownstreamSessions(top);
  ASSERT_TRUE(joining.valid() && hasEnded(joining, patience));
  EXPECT_GT(place("userInfoUpdatedForSession: Adding session 9"), place(updating(grandchild)));
}

TEST_F(ChainWalk, ASessionWhoseClientVanishesMeanwhileEndsAfterTheLast) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  FakeConnection& leaving = connectionOf(grandchild);
  const std::weak_ptr<CorviddSession> ended = grandchild.weak_from_this();
  std::future<void> vanishing;
  connectionOf(child).onDelivery = [&] {
    vanishing = std::async(std::launch::async, [&] { leaving.clientVanishes(); });
    EXPECT_FALSE(hasEnded(vanishing, aWhile));
  };
  top.setHasAggregator(true);
  log.clear();
  const std::string last = updating(grandchild);
  agent->updateDownstreamSessions(top);
  ASSERT_TRUE(vanishing.valid() && hasEnded(vanishing, patience));
  EXPECT_GT(place("dealloc: CorviddSession dealloc: 3"), place(last));
  EXPECT_TRUE(ended.expired());
}

TEST_F(ChainWalk, AClientThatCannotBeToldDoesNotEndTheWalk) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& grandchild = join(3, 2);
  grandchild.setHasAggregator(true);
  connectionOf(child).deliveryError = "the connection is gone";
  top.setHasAggregator(true);
  agent->updateDownstreamSessions(top);
  EXPECT_TRUE(log.has(LogLevel::error,
                      "sendMessageWithDictionary: Failed to get remote object proxy: the "
                      "connection is gone"));
  EXPECT_FALSE(child.hasAggregator());
  EXPECT_FALSE(grandchild.hasAggregator());
}

// The order within a walk

TEST_F(ChainWalk, EachSessionGetsItsIDThenItsStatesAndIsThenShutDown) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  top.setHasAggregator(true);
  log.clear();
  agent->updateDownstreamSessions(top);
  EXPECT_THAT(
      log.texts(debug),
      ElementsAre(
          updating(child),
          "parentSessionIDStringForSession: Checking userInfoKey 'player:feed' for session 2",
          fmt::format("updateCombinedSessionID: Updating combined session ID '{}.{}' for session "
                      "2 backends",
                      top.sessionIDString(), child.sessionIDString()),
          "parentSessionForChild: Checking userInfoKey 'player:feed' for session 2",
          "HTTPSPostBackend(syncReportingStates): httpPost: state and sampling rate updated to 2, "
          "1.00%",
          "shutdownSessionAggregation: Disable aggregation module for session 2"));
}

TEST_F(ChainWalk, TheChangedSessionComesFirstAndIsShutDownBeforeItsDescendants) {
  CorviddSession& top = join(1, 0);
  CorviddSession& grandchild = join(3, 2, true);
  CorviddSession& child = join(2, 1);
  top.setHasAggregator(true);
  log.clear();
  agent->updateDownstreamSessions(child);
  EXPECT_LT(place("parentSessionForChild: Checking userInfoKey 'player:feed' for session 2"),
            place("shutdownSessionAggregation: Disable aggregation module for session 2"));
  EXPECT_LT(place("shutdownSessionAggregation: Disable aggregation module for session 2"),
            place(updating(grandchild)));
  EXPECT_LT(place(updating(grandchild)),
            place("shutdownSessionAggregation: Disable aggregation module for session 3"));
}

TEST_F(ChainWalk, ASessionInNoGroupIsBroughtUpToDateAlone) {
  CorviddSession& top = connectAs(1, 8, userInfo("Player", "Feed"));
  log.clear();
  agent->updateDownstreamSessions(top);
  EXPECT_THAT(log.texts(debug), IsEmpty());  // a top without a group has nothing to look up
  CorviddSession& child = join(2, 1);
  child.setSessionInfo(*child.sessionInfo(), userInfo("Nobody", "Here"), {}, false);
  log.clear();
  agent->updateDownstreamSessions(child);
  EXPECT_THAT(
      log.texts(LogLevel::error),
      ElementsAre(
          "parentSessionIDStringForSession: ERROR: No sessions found for user info key nobody:here",
          "parentSessionForChild: ERROR: No sessions found for user info key nobody:here"));
}

}  // namespace
}  // namespace corvid
