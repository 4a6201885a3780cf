#include <fmt/format.h>

#include "base/Mutex.h"
#include "tests/daemon/AgentFixture.h"

namespace corvid {
namespace {

class Hierarchy : public AgentTest {
 protected:
  CorviddSession* parentOf(CorviddSession& session) {
    const RecursiveLock lock(agent->mutex());
    return agent->parentSessionForChild(session);
  }
  CorviddSession* aggregatorOf(CorviddSession& session) {
    const RecursiveLock lock(agent->mutex());
    return agent->getAncestorWithAggregatorForSession(session);
  }
  // Replaces the user info without telling the agent.
  static void pretend(CorviddSession& session, std::optional<Dictionary> info) {
    session.setSessionInfo(*session.sessionInfo(), std::move(info), {}, session.hasAggregator());
  }
};

// Joining

TEST_F(Hierarchy, ASessionWithoutUserInfoJoinsNoGroup) {
  CorviddSession& session = connectAs(7, 8);
  agent->userInfoUpdatedForSession(session);
  EXPECT_TRUE(
      log.has(LogLevel::info, "userInfoUpdatedForSession: No user info found for session 7"));
  connect("next");
  EXPECT_TRUE(log.anyContains("1(0) connections."));
}

TEST_F(Hierarchy, ASessionJoinsTheGroupOfItsLowerCasedNames) {
  CorviddSession& session = connectAs(7, 8, userInfo("PLAYER", "FeeD"));
  agent->userInfoUpdatedForSession(session);
  EXPECT_TRUE(
      log.has(LogLevel::debug,
              "userInfoUpdatedForSession: Adding session 7 to list for userInfoKey player:feed"));
}

TEST_F(Hierarchy, AbsentNamesAreEmptyInTheKey) {
  agent->userInfoUpdatedForSession(connectAs(7, 8, Dictionary{}));
  EXPECT_TRUE(log.has(LogLevel::debug,
                      "userInfoUpdatedForSession: Adding session 7 to list for userInfoKey :"));
}

TEST_F(Hierarchy, NamesThatDifferInCaseOnlyShareAGroup) {
  CorviddSession& parent = join(1, 0, false, "PLAYER");
  CorviddSession& child = join(2, 1, false, "player");
  EXPECT_EQ(parentOf(child), &parent);
}

TEST_F(Hierarchy, JoiningAgainMovesASessionBehindTheOthers) {
  CorviddSession& first = join(1, 0);
  CorviddSession& second = join(2, 0);
  CorviddSession& child = join(3, 1);
  EXPECT_EQ(parentOf(child), &first);
  agent->userInfoUpdatedForSession(first);
  EXPECT_EQ(parentOf(child), &second);
}

TEST_F(Hierarchy, ASessionWhoseClientNameChangesMovesToTheNewGroup) {
  CorviddSession& parent = join(1, 0, false, "Player");
  CorviddSession& oldChild = join(2, 1, false, "Player");
  CorviddSession& newChild = join(3, 1, false, "Recorder");
  parent.fetchStatesWithUserInfo(userInfo("Recorder", "Feed"), {});
  EXPECT_EQ(parentOf(oldChild), nullptr);
  EXPECT_EQ(parentOf(newChild), &parent);
}

TEST_F(Hierarchy, ASessionThatLostItsUserInfoStaysInItsGroup) {
  CorviddSession& parent = join(1, 0);
  CorviddSession& child = join(2, 1);
  pretend(parent, std::nullopt);
  agent->userInfoUpdatedForSession(parent);
  EXPECT_EQ(parentOf(child), &parent);
}

TEST_F(Hierarchy, ASessionIsInItsGroupOnceHoweverOftenItJoins) {
  CorviddSession& parent = join(1, 0);
  CorviddSession& child = join(2, 1);
  agent->userInfoUpdatedForSession(parent);
  agent->userInfoUpdatedForSession(parent);
  connectionOf(parent).clientVanishes();
  EXPECT_EQ(parentOf(child), nullptr);
}

TEST_F(Hierarchy, ASessionWithoutBackendsIsAtLevelZero) {
  CorviddSession& unstarted = connectAs(1, 8, userInfo("Player", "Feed"));
  agent->userInfoUpdatedForSession(unstarted);
  CorviddSession& child = join(2, 1);
  EXPECT_EQ(parentOf(child), &unstarted);
}

TEST_F(Hierarchy, EmptyGroupsAreKeptUpToTheirLimit) {
  CorviddSession& session = connectAs(1, 8, userInfo("first", ""));
  const std::string longName(ChainRegistry::keptGroupBytes / 4, 'n');
  int groups = 0;
  for (const char* suffix : {"a", "b", "c"}) {
    pretend(session, userInfo(longName + suffix, ""));
    agent->userInfoUpdatedForSession(session);
    log.clear();
    connect();
    EXPECT_TRUE(log.anyContains(fmt::format("({}) connections.", ++groups)));
  }
  pretend(session, userInfo(longName + "d", ""));
  agent->userInfoUpdatedForSession(session);
  log.clear();
  connect();
  EXPECT_TRUE(log.anyContains("(1) connections."));
}

// Ancestors' session ID strings

TEST_F(Hierarchy, TheTopOfAChainHasNoParentAndSaysNothing) {
  CorviddSession& top = join(1, 0);
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(top), std::nullopt);
  EXPECT_EQ(parentOf(top), nullptr);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Hierarchy, TheParentIDReadsFromTheTopToTheImmediateParent) {
  CorviddSession& a = join(1, 0);
  CorviddSession& b = join(2, 1);
  CorviddSession& c = join(3, 2);
  CorviddSession& d = join(4, 3);
  EXPECT_EQ(agent->parentSessionIDStringForSession(c),
            a.sessionIDString() + "." + b.sessionIDString());
  EXPECT_EQ(agent->parentSessionIDStringForSession(d),
            a.sessionIDString() + "." + b.sessionIDString() + "." + c.sessionIDString());
  EXPECT_TRUE(
      log.has(LogLevel::debug,
              "parentSessionIDStringForSession: Checking userInfoKey 'player:feed' for session 4"));
}

TEST_F(Hierarchy, WithoutItsImmediateParentASessionHasNoParentID) {
  join(1, 0);
  CorviddSession& grandchild = join(3, 2);
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(grandchild), std::nullopt);
  EXPECT_EQ(
      log.texts(LogLevel::info),
      std::vector<std::string>{
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '(null)'"});
}

TEST_F(Hierarchy, AGapAboveTheParentCutsTheParentID) {
  CorviddSession& child = join(2, 1);
  CorviddSession& grandchild = join(3, 2);
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(grandchild), child.sessionIDString());
  EXPECT_EQ(
      log.texts(LogLevel::info),
      std::vector<std::string>{fmt::format(
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
          child.sessionIDString())});
}

TEST_F(Hierarchy, OfTwoSessionsAtOneLevelTheFirstToJoinIsTheParent) {
  CorviddSession& first = join(1, 0);
  join(2, 0);
  CorviddSession& child = join(3, 1);
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), first.sessionIDString());
  EXPECT_EQ(parentOf(child), &first);
}

TEST_F(Hierarchy, AMissingGroupIsAnError) {
  CorviddSession& child = join(2, 1);
  pretend(child, userInfo("Nobody", "Here"));
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), std::nullopt);
  EXPECT_EQ(parentOf(child), nullptr);
  EXPECT_EQ(
      log.texts(LogLevel::error),
      (std::vector<std::string>{
          "parentSessionIDStringForSession: ERROR: No sessions found for user info key nobody:here",
          "parentSessionForChild: ERROR: No sessions found for user info key nobody:here"}));
}

TEST_F(Hierarchy, AnEmptyGroupIsAsGoodAsNone) {
  CorviddSession& child = join(2, 1);
  connectionOf(join(1, 0, false, "Recorder")).clientVanishes();
  pretend(child, userInfo("Recorder", "Feed"));
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), std::nullopt);
  EXPECT_TRUE(log.has(
      LogLevel::error,
      "parentSessionIDStringForSession: ERROR: No sessions found for user info key recorder:feed"));
}

TEST_F(Hierarchy, ASessionOutsideItsGroupIsAnError) {
  CorviddSession& child = join(2, 1);
  join(1, 0, false, "Recorder");
  pretend(child, userInfo("Recorder", "Feed"));
  log.clear();
  EXPECT_EQ(agent->parentSessionIDStringForSession(child), std::nullopt);
  EXPECT_EQ(parentOf(child), nullptr);
  EXPECT_EQ(
      log.texts(LogLevel::error),
      (std::vector<std::string>{
          "parentSessionIDStringForSession: ERROR: Session 2 not found for user info key recorder:feed",
          "parentSessionForChild: ERROR: Session 2 not found for user info key recorder:feed"}));
}

// Parents

TEST_F(Hierarchy, TheParentIsOneLevelUp) {
  join(1, 0);
  CorviddSession& child = join(2, 1);
  CorviddSession& grandchild = join(3, 2);
  log.clear();
  EXPECT_EQ(parentOf(grandchild), &child);
  EXPECT_EQ(log.texts(LogLevel::debug),
            std::vector<std::string>{
                "parentSessionForChild: Checking userInfoKey 'player:feed' for session 3"});
}

TEST_F(Hierarchy, AMissingParentIsLogged) {
  join(1, 0);
  CorviddSession& grandchild = join(3, 2);
  log.clear();
  EXPECT_EQ(parentOf(grandchild), nullptr);
  EXPECT_EQ(
      log.texts(LogLevel::info),
      std::vector<std::string>{
          "parentSessionForChild: Unable to find session with hierarchy of 1 for userInfoKey 'player:feed'"});
}

TEST_F(Hierarchy, ANegativeLevelHasNoParent) {
  join(1, -2, true);
  CorviddSession& session = join(2, -1);
  EXPECT_EQ(parentOf(session), nullptr);
  EXPECT_EQ(agent->parentSessionIDStringForSession(session), std::nullopt);
  EXPECT_EQ(aggregatorOf(session), nullptr);
}

// Ancestors that aggregate

TEST_F(Hierarchy, WithoutUserInfoThereIsNoAncestor) {
  CorviddSession& session = connectAs(7, 8);
  EXPECT_EQ(aggregatorOf(session), nullptr);
  EXPECT_TRUE(log.has(LogLevel::info,
                      "getAncestorWithAggregatorForSession: No user info found for session 7"));
}

TEST_F(Hierarchy, TheTopmostAggregatorIsPreferred) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& child = join(2, 1);
  CorviddSession& grandchild = join(3, 2);
  child.setHasAggregator(true);
  EXPECT_EQ(aggregatorOf(grandchild), &top);
  EXPECT_EQ(aggregatorOf(child), &top);
  top.setHasAggregator(false);
  EXPECT_EQ(aggregatorOf(grandchild), &child);
  EXPECT_EQ(aggregatorOf(child), nullptr);
}

TEST_F(Hierarchy, TheTopmostAggregatorIsPreferredInAnyOrderOfJoining) {
  CorviddSession& grandchild = join(3, 2);
  CorviddSession& child = join(2, 1);
  CorviddSession& top = join(1, 0);
  child.setHasAggregator(true);
  top.setHasAggregator(true);
  EXPECT_EQ(aggregatorOf(grandchild), &top);
}

TEST_F(Hierarchy, OnlyTheFirstSessionOfALevelIsAskedForAnAggregator) {
  join(1, 0);
  CorviddSession& second = join(2, 0);
  CorviddSession& child = join(3, 1);
  second.setHasAggregator(true);
  EXPECT_EQ(aggregatorOf(child), nullptr);
}

TEST_F(Hierarchy, ASessionIsNotItsOwnAncestor) {
  CorviddSession& top = join(1, 0, true);
  EXPECT_EQ(aggregatorOf(top), nullptr);
  CorviddSession& orphan = join(2, 1, true, "Recorder");
  EXPECT_EQ(aggregatorOf(orphan), nullptr);
  EXPECT_TRUE(orphan.hasAggregator()) << "nobody took it from it";
}

TEST_F(Hierarchy, AGapDoesNotHideAnAncestorThatAggregates) {
  CorviddSession& top = join(1, 0, true);
  CorviddSession& deep = join(4, 3);
  EXPECT_EQ(aggregatorOf(deep), &top);
}

// Bringing the sessions below up to date

class Downstream : public Hierarchy {
 protected:
  static std::string updating(std::uint32_t sessionID) {
    return fmt::format(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        sessionID);
  }
  static std::string shutDown(std::uint32_t sessionID) {
    return fmt::format("shutdownSessionAggregation: Disable aggregation module for session {}",
                       sessionID);
  }
  static std::string combined(std::uint32_t sessionID, const std::string& identifier) {
    return fmt::format(
        "updateCombinedSessionID: Updating combined session ID '{}' for session {} backends",
        identifier, sessionID);
  }
};

TEST_F(Downstream, NothingHappensWithoutUserInfo) {
  CorviddSession& session = connectAs(7, 8);
  log.clear();
  agent->updateDownstreamSessions(session);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(
      log.has(LogLevel::info, "updateDownstreamSessions: No user info found for session 7"));
}

TEST_F(Downstream, EveryDescendantIsUpdatedInOrderOfJoining) {
  CorviddSession& grandchild = join(3, 2);
  CorviddSession& child = join(2, 1);
  CorviddSession& top = join(1, 0);
  join(4, 0);
  join(5, 1, false, "Recorder");
  log.clear();
  agent->updateDownstreamSessions(top);
  std::vector<std::string> lines;
  for (const std::string& line : log.texts(LogLevel::debug))
    if (line.starts_with("update")) lines.push_back(line);
  const std::string topID = top.sessionIDString();
  const std::string childID = topID + "." + child.sessionIDString();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       updating(3), combined(3, childID + "." + grandchild.sessionIDString()),
                       updating(2), combined(2, childID)}));
}

TEST_F(Downstream, TheChangedSessionIsUpdatedFirst) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1);
  log.clear();
  agent->updateDownstreamSessions(child);
  EXPECT_TRUE(
      log.has(LogLevel::debug, combined(2, top.sessionIDString() + "." + child.sessionIDString())));
  EXPECT_FALSE(log.has(LogLevel::debug, updating(2)));
  EXPECT_TRUE(log.has(LogLevel::debug,
                      "parentSessionForChild: Checking userInfoKey 'player:feed' for session 2"));
}

TEST_F(Downstream, ATopThatAggregatesEndsTheAggregationOfAChildThatCameFirst) {
  CorviddSession& child = join(2, 1, true);
  const std::size_t deliveriesBefore = connectionOf(child).deliveries().size();
  CorviddSession& top = join(1, 0, true);
  EXPECT_FALSE(child.hasAggregator());
  EXPECT_TRUE(top.hasAggregator());
  const auto deliveries = connectionOf(child).deliveries();
  ASSERT_EQ(deliveries.size(), deliveriesBefore + 1);
  const auto& farewell = deliveries.back();
  EXPECT_EQ(farewell.message, std::nullopt);
  EXPECT_EQ(farewell.timestamp, 0.0);
  EXPECT_EQ(farewell.category, 0);
  EXPECT_EQ(farewell.type, 0);
  EXPECT_EQ(farewell.payload, std::nullopt);
}

TEST_F(Downstream, AChildUnderATopThatAggregatesLosesItsAggregation) {
  const CorviddSession& top = join(1, 0, true);
  const CorviddSession& child = join(2, 1, true);
  EXPECT_TRUE(top.hasAggregator());
  EXPECT_FALSE(child.hasAggregator());
}

TEST_F(Downstream, UnderAnAggregatingAncestorEvenASessionWithoutAggregatorIsShutDown) {
  join(1, 0, true);
  CorviddSession& child = join(2, 1);
  log.clear();
  agent->updateDownstreamSessions(child);
  EXPECT_EQ(log.count(LogLevel::debug, shutDown(2)), 1);
}

TEST_F(Downstream, DescendantsOfAShutDownSessionLoseTheirAggregationToo) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1);
  CorviddSession& grandchild = join(3, 2);
  CorviddSession& silent = join(4, 2);
  top.setHasAggregator(true);
  grandchild.setHasAggregator(true);
  log.clear();
  agent->updateDownstreamSessions(child);
  EXPECT_FALSE(grandchild.hasAggregator());
  EXPECT_EQ(log.count(LogLevel::debug, shutDown(grandchild.sessionID())), 1);
  EXPECT_EQ(log.count(LogLevel::debug, shutDown(silent.sessionID())), 0);
}

TEST_F(Downstream, WithoutAnyAggregatorAboveADescendantKeepsItsOwn) {
  CorviddSession& top = join(1, 0);
  CorviddSession& child = join(2, 1, true);
  agent->updateDownstreamSessions(top);
  EXPECT_TRUE(child.hasAggregator());
}

TEST_F(Downstream, OnlyTheHighestAggregatorOfAChainSurvives) {
  CorviddSession& grandchild = join(3, 2, true);
  CorviddSession& child = join(2, 1, true);
  CorviddSession& top = join(1, 0, true);
  EXPECT_TRUE(top.hasAggregator());
  EXPECT_FALSE(child.hasAggregator());
  EXPECT_FALSE(grandchild.hasAggregator());
}

}  // namespace
}  // namespace corvid
