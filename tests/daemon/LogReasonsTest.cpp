// What stands beside the log lines of agent and sessions.
#include <gtest/gtest.h>

#include "protocol/Keys.h"
#include "protocol/Reason.h"
#include "tests/daemon/AgentFixture.h"
#include "tests/fakes/LoggedFields.h"

namespace corvid {
namespace {

class LogReasons : public AgentTest {
 protected:
  LoggedFields logged;
};

TEST_F(LogReasons, APeerWithoutTheEntitlementIsNotEntitled) {
  const auto connection = newConnection();
  connection->entitlements.erase("com.halcyon.private.corvidd");
  EXPECT_FALSE(agent->shouldAcceptNewConnection(connection));
  const auto line = logged.last("listener: new IPC connection");
  EXPECT_EQ(line.reason, "notEntitled");
  EXPECT_EQ(line.messageID, textOf(Reason::notEntitled).messageID);
}

TEST_F(LogReasons, AnEventWithoutBackendsHasTheReasonOfItsSession) {
  constexpr std::string_view line = "sendMessageWithDictionary: No backends available";
  CorviddSession& session = sessionOf(*connect());
  session.sendMessageWithCategory(3, 4, std::nullopt, {});
  EXPECT_EQ(logged.last(line).reason, "noSessionInfo");
  session.setSessionInfo({{std::string(kCorvidSessionInfoClientType), 8}}, std::nullopt, {}, false);
  session.sendMessageWithCategory(3, 4, std::nullopt, {});
  EXPECT_EQ(logged.last(line).reason, "notConfigured");
  EXPECT_EQ(logged.last("sendMessageWithCategory:").reason, "");
}

TEST_F(LogReasons, AMessageWithoutCategoryIsIncomplete) {
  join(1, 0).sendMessageWithDictionary({}, {});
  EXPECT_EQ(logged.last("sendMessageWithDictionary: Missing mandatory").reason,
            "incompleteMessage");
}

TEST_F(LogReasons, AStorebagThatCannotBeHadHasTheReasonOfItsFetch) {
  answerFetch = [](std::int32_t) {
    return FetchedStorebag{.fault = StorebagFault{Reason::storebagUnverified}};
  };
  CorviddSession& session = connectAs(1, 8);
  session.startConfigWithCompletionHandler({});
  EXPECT_EQ(logged.last("fetchAndCacheStorebag: Unable").reason, "storebagUnverified");
  session.startConfigWithCompletionHandler({});
  EXPECT_EQ(logged.last("storebagForSession: Not fetching").reason, "storebagUnverified");
}

TEST_F(LogReasons, AClientIsItsNameOrTheNumberOfItsType) {
  CorviddSession& session = connectAs(1, 8);
  EXPECT_EQ(session.logSubject()->session(), session.number());
  EXPECT_EQ(session.logSubject()->client(), "8");
  session.fetchStatesWithUserInfo(userInfo("Player", "Feed"), {});
  EXPECT_EQ(session.logSubject()->client(), "Player");
}

TEST_F(LogReasons, LinesOfASessionBelowAreItsOwnWhoeverCausesThem) {
  const CorviddSession& child = join(1, 1);
  const auto other = std::make_shared<LogSubject>(99);
  const LoggingFor somebody(other.get());
  join(2, 0);
  const auto line = logged.last("HTTPSPostBackend(syncReportingStates)");
  EXPECT_EQ(line.session, child.number());
  EXPECT_EQ(line.client, "Player");
  EXPECT_EQ(line.backend, "httpPost");
  EXPECT_NE(line.reason, "");
}

}  // namespace
}  // namespace corvid
