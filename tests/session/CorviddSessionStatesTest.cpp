#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Dictionary alice{{"_clientName", "alice"}, {"_serviceName", "calls"}};

class CorviddSessionStatesTest : public SessionTest {
 protected:
  std::optional<Array> fetch(std::optional<Dictionary> userInfo = std::nullopt) {
    RecordedStates states;
    session->fetchStatesWithUserInfo(std::move(userInfo), states.reply());
    return states.result();
  }
  // Whether new user info made the agent regroup the session, and the log say so.
  bool countsAsChanged(std::optional<Dictionary> userInfo) {
    forgetWhatHappened();
    fetch(std::move(userInfo));
    const bool logged =
        platform.log.has(LogLevel::debug, "receivedUserInfo: Received new user info for session 7");
    const auto entries = journal->entries();
    const bool regrouped =
        ::testing::Value(entries, ::testing::Contains("agent userInfoUpdatedForSession"));
    EXPECT_EQ(logged, regrouped);
    return logged;
  }
  // A started session with this session info's requirement and user info.
  FakeBackend& startWith(bool requireUserInfo, std::optional<Dictionary> userInfo) {
    FakeBackend& backend = add(kCorvidBackendHTTPPost);
    configureAndStart({{"SessionID", 7}, {"RequireUserInfo", requireUserInfo}},
                      std::move(userInfo));
    return backend;
  }
};

TEST_F(CorviddSessionStatesTest, WithoutATableThereAreNoStates) {
  session->setSessionID(7);
  platform.log.clear();
  EXPECT_EQ(fetch(), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("fetchStatesWithUserInfo: Fetching states for session 7"));
}

TEST_F(CorviddSessionStatesTest, WithAnEmptyTableTheStatesAreEmpty) {
  configureAndStart();
  EXPECT_EQ(fetch(), Array{});
}

TEST_F(CorviddSessionStatesTest, SendingAndHeldBackendsAreReportedByTableKey) {
  add("waiting").stateAfterUpdate = BackendState::waiting;
  add("disabled").stateAfterUpdate = BackendState::disabled;
  addAs("sending", "othername").stateAfterUpdate = BackendState::sending;
  add("held").stateAfterUpdate = BackendState::held;
  configureAndStart();
  EXPECT_EQ(fetch(), (Array{"held", "sending"}));
}

TEST_F(CorviddSessionStatesTest, WhereNoBackendReportsTheStatesAreEmpty) {
  add(kCorvidBackendHTTPPost).stateAfterUpdate = BackendState::disabled;
  configureAndStart();
  EXPECT_EQ(fetch(), Array{});
}

TEST_F(CorviddSessionStatesTest, WithoutACallbackTheUserInfoIsAppliedAllTheSame) {
  startWith(true, std::nullopt);
  session->fetchStatesWithUserInfo(alice, {});
  EXPECT_EQ(*session->userInfo(), alice);
}

TEST_F(CorviddSessionStatesTest, FirstUserInfoReachesBackendsAndThenTheAgent) {
  FakeBackend& backend = startWith(true, std::nullopt);
  SharedDictionary infoAtTheAgentsTurn;
  agent->onUserInfoUpdated = [&] { infoAtTheAgentsTurn = backend.userInfoDict(); };
  EXPECT_EQ(fetch(alice), (Array{"httpPost"}));
  ASSERT_TRUE(infoAtTheAgentsTurn);
  EXPECT_EQ(*infoAtTheAgentsTurn, alice);
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent userInfoUpdatedForSession", "httpPost updateState",
                          "agent updateDownstreamSessions"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("fetchStatesWithUserInfo: Fetching states for session 7",
                          "receivedUserInfo: Received new user info for session 7"));
}

TEST_F(CorviddSessionStatesTest, NoUserInfoWhereThereWasNoneChangesNothing) {
  startWith(false, std::nullopt);
  fetch(std::nullopt);
  EXPECT_THAT(journal->entries(), IsEmpty());
}

TEST_F(CorviddSessionStatesTest, RequiredUserInfoIsKeptWhereTheNewIsNone) {
  startWith(true, alice);
  fetch(std::nullopt);
  EXPECT_EQ(*session->userInfo(), alice);
  EXPECT_THAT(journal->entries(), IsEmpty());
}

TEST_F(CorviddSessionStatesTest, UserInfoThatIsNotRequiredMayGoAway) {
  FakeBackend& backend = startWith(false, alice);
  EXPECT_TRUE(countsAsChanged(std::nullopt));
  EXPECT_EQ(session->userInfo(), nullptr);
  EXPECT_EQ(backend.userInfoDict(), nullptr);
}

TEST_F(CorviddSessionStatesTest, EqualNamesAreNoChangeButTheUserInfoIsReplaced) {
  FakeBackend& backend = startWith(true, alice);
  Dictionary more = alice;
  more.set("other", "data");
  EXPECT_FALSE(countsAsChanged(more));
  EXPECT_EQ(*session->userInfo(), more);
  EXPECT_EQ(*backend.userInfoDict(), more);
  EXPECT_THAT(journal->entries(), IsEmpty());
}

TEST_F(CorviddSessionStatesTest, AnotherClientOrServiceNameIsAChange) {
  startWith(true, alice);
  EXPECT_TRUE(countsAsChanged(Dictionary{{"_clientName", "bob"}, {"_serviceName", "calls"}}));
  EXPECT_TRUE(countsAsChanged(Dictionary{{"_clientName", "bob"}, {"_serviceName", "chats"}}));
  EXPECT_FALSE(countsAsChanged(Dictionary{{"_clientName", "bob"}, {"_serviceName", "chats"}}));
}

TEST_F(CorviddSessionStatesTest, NamesAreComparedWithRegardToCase) {
  startWith(true, alice);
  EXPECT_TRUE(countsAsChanged(Dictionary{{"_clientName", "Alice"}, {"_serviceName", "calls"}}));
}

TEST_F(CorviddSessionStatesTest, ANameThatOnlyOneOfThemHasIsAChange) {
  startWith(true, alice);
  EXPECT_TRUE(countsAsChanged(Dictionary{{"_clientName", "alice"}}));
  EXPECT_TRUE(countsAsChanged(alice));
}

TEST_F(CorviddSessionStatesTest, ANameThatBothLackIsNoChange) {
  startWith(true, Dictionary{{"_clientName", "alice"}});
  EXPECT_FALSE(countsAsChanged(Dictionary{{"_clientName", "alice"}, {"other", "data"}}));
  EXPECT_TRUE(countsAsChanged(Dictionary{}));
  EXPECT_FALSE(countsAsChanged(Dictionary{}));
}

TEST_F(CorviddSessionStatesTest, ANameThatIsNoTextCountsAsLacking) {
  startWith(true, Dictionary{{"_clientName", "alice"}, {"_serviceName", 1}});
  EXPECT_FALSE(countsAsChanged(Dictionary{{"_clientName", "alice"}, {"_serviceName", 2}}));
  EXPECT_FALSE(countsAsChanged(Dictionary{{"_clientName", "alice"}}));
  EXPECT_TRUE(countsAsChanged(alice));
}

TEST_F(CorviddSessionStatesTest, UserInfoWithoutNamesMayGoAwayToo) {
  startWith(false, Dictionary{{"other", "data"}});
  EXPECT_TRUE(countsAsChanged(std::nullopt));
}

TEST_F(CorviddSessionStatesTest, EveryBackendGetsTheUserInfoBeforeAnyComputesItsState) {
  FakeBackend& first = add(kCorvidBackendDashboard);
  FakeBackend& second = startWith(true, std::nullopt);
  SharedDictionary infoOfTheSecond;
  first.onUpdateState = [&] { infoOfTheSecond = second.userInfoDict(); };
  fetch(alice);
  ASSERT_TRUE(infoOfTheSecond);
  EXPECT_EQ(*infoOfTheSecond, alice);
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent userInfoUpdatedForSession", "dashboard updateState",
                          "httpPost updateState", "agent updateDownstreamSessions"));
}

TEST_F(CorviddSessionStatesTest, TheAnswerTellsTheStatesAfterTheNewUserInfo) {
  FakeBackend& backend = startWith(true, std::nullopt);
  backend.stateAfterUpdate = BackendState::disabled;
  EXPECT_EQ(fetch(alice), Array{});
}

class CorviddSessionCombinedIDTest : public SessionTest {
 protected:
  const std::string own = session->sessionIDString();
};

TEST_F(CorviddSessionCombinedIDTest, JoinsTheAncestorsIDsAndItsOwn) {
  FakeBackend& first = add(kCorvidBackendDashboard);
  FakeBackend& second = add(kCorvidBackendHTTPPost);
  configureAndStart();
  EXPECT_EQ(first.combinedSessionIDString(), own);
  session->updateCombinedSessionID("X.Y");
  EXPECT_EQ(first.combinedSessionIDString(), "X.Y." + own);
  EXPECT_EQ(second.combinedSessionIDString(), "X.Y." + own);
  EXPECT_THAT(journal->entries(),
              ElementsAre("dashboard setCorrelatedSessionID", "httpPost setCorrelatedSessionID"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("updateCombinedSessionID: Updating combined session ID 'X.Y." + own +
                          "' for session 7 backends"));
}

TEST_F(CorviddSessionCombinedIDTest, WithoutAParentStringNothingHappens) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  session->updateCombinedSessionID("Y");
  forgetWhatHappened();
  session->updateCombinedSessionID(std::nullopt);
  EXPECT_EQ(backend.combinedSessionIDString(), "Y." + own);
  EXPECT_THAT(journal->entries(), IsEmpty());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

}  // namespace
}  // namespace corvid
