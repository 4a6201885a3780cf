#include <stdexcept>

#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Dictionary identifiers{{"ClientType", 5}, {"SessionID", 9}};

class CorviddSessionSingleMessageTest : public SessionTest {
 protected:
  void SetUp() override { forgetWhatHappened(); }

  RecordedReply<MessageAnswer> sendSingle(Dictionary info,
                                          std::optional<Dictionary> userInfo = std::nullopt,
                                          std::optional<Dictionary> payload = std::nullopt) {
    RecordedReply<MessageAnswer> recorded;
    session->sendMessageWithSessionInfo(std::move(info), std::move(userInfo), 1, 2,
                                        std::move(payload), recorded.reply());
    return recorded;
  }
  void sendSingleDirectly(const Dictionary* info, const Dictionary* userInfo,
                          const Dictionary* storebag) {
    CorviddSession::sendMessageWithSessionInfo(info, userInfo ? shared(*userInfo) : nullptr,
                                               storebag, 1, 2, nullptr, creator());
  }
  std::uint64_t dropped(Reason reason) const {
    const Balance balance = agent->ledger()->totals().balance;
    EXPECT_EQ(balance.accepted, balance.droppedInAll());
    return balance.dropped[static_cast<std::size_t>(reason)];
  }
};

TEST_F(CorviddSessionSingleMessageTest, WithoutAnIdentifierTheClientGetsNoAnswer) {
  const std::vector<Dictionary> incomplete{
      {}, {{"ClientType", 5}}, {{"SessionID", 9}}, {{"ClientType", Array{}}, {"SessionID", 9}}};
  for (const Dictionary& info : incomplete) {
    forgetWhatHappened();
    const auto recorded = sendSingle(info, Dictionary{{"_clientName", "a"}});
    EXPECT_EQ(recorded.answers(), 0u);
    EXPECT_TRUE(recorded.unanswered());
    EXPECT_THAT(
        platform.log.texts(LogLevel::error),
        ElementsAre("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo"));
    EXPECT_EQ(platform.log.lines().size(), 1u);
  }
  EXPECT_EQ(session->sessionID(), 0u);
  EXPECT_EQ(session->sessionInfo(), nullptr);
  EXPECT_EQ(session->userInfo(), nullptr);
}

TEST_F(CorviddSessionSingleMessageTest, TheSessionTakesIdentifierSessionInfoAndUserInfo) {
  const Dictionary user{{"_clientName", "a"}};
  sendSingle(identifiers, user);
  EXPECT_EQ(session->sessionID(), 9u);
  EXPECT_EQ(*session->sessionInfo(), identifiers);
  EXPECT_EQ(*session->userInfo(), user);
}

TEST_F(CorviddSessionSingleMessageTest, WithoutAStorebagTheAnswerSaysSo) {
  const auto recorded = sendSingle(identifiers, Dictionary{{"_clientName", "a"}});
  EXPECT_EQ(recorded.result(), "storebag not available");
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent userInfoUpdatedForSession", "agent updateDownstreamSessions",
                          "agent storebagForSession"));
  EXPECT_THAT(
      platform.log.texts(LogLevel::debug),
      ElementsAre("receivedUserInfo: Received new user info for session 9",
                  "sendMessageWithSessionInfo: Sending message with session info for session 9"));
  EXPECT_TRUE(creations.empty());
}

TEST_F(CorviddSessionSingleMessageTest, SendsThroughBackendsThatLiveForThisMessage) {
  FakeBackend& dashboard = add(kCorvidBackendDashboard);
  FakeBackend& http = add(kCorvidBackendHTTPPost);
  const auto kept = *table;
  dashboard.sendAnswer = "from dashboard";
  http.sendAnswer = "";
  agent->storebag = Dictionary{{"httpPost", Dictionary{}}};
  const Dictionary user{{"_clientName", "a"}};
  Dictionary info = identifiers;
  info.set("RequireUserInfo", true);
  platform.clock->set({1'700'000'123, 250'000});
  const auto recorded = sendSingle(info, user, Dictionary{{"k", 1}});
  EXPECT_EQ(recorded.result(), "finished");

  ASSERT_EQ(creations.size(), 1u);
  EXPECT_EQ(creations[0].section, agent->storebag);
  EXPECT_EQ(creations[0].sessionInfo, info);
  EXPECT_EQ(creations[0].userInfo, user);
  EXPECT_EQ(creations[0].udid, "0123456789abcdef0123456789abcdef01234567");

  EXPECT_THAT(journal->entries(),
              ElementsAre("agent userInfoUpdatedForSession", "agent updateDownstreamSessions",
                          "agent storebagForSession", "dashboard updateState",
                          "dashboard sendMessage 1 2", "httpPost updateState",
                          "httpPost sendMessage 1 2", "dashboard cleanup", "httpPost cleanup"));
  EXPECT_EQ(http.sent.back().payload, (Dictionary{{"k", 1}}));
  EXPECT_EQ(http.sent.back().timestamp, (TimeValue{1'700'000'123, 250'000}));
  EXPECT_EQ(http.sent.back().flag, MessageFlag{0});
  EXPECT_THAT(messageLog(),
              ElementsAre("[dashboard -> sendMessageWithSessionInfo] from dashboard"));
  EXPECT_THAT(
      platform.log.texts(LogLevel::debug),
      ElementsAre("receivedUserInfo: Received new user info for session 9",
                  "sendMessageWithSessionInfo: Sending message with session info for session 9",
                  "sendMessageWithSessionInfo: Sending single message with sessionID 9"));
  EXPECT_THAT(platform.log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(CorviddSessionSingleMessageTest, LeavesTheSessionWithoutBackends) {
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  sendSingle(identifiers);
  table.reset();
  EXPECT_EQ(journal->entries().back(), "httpPost gone");
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "sendMessageWithDictionary: No backends available to send message"));
}

TEST_F(CorviddSessionSingleMessageTest, ReachesNoAggregator) {
  session->setHasAggregator(true);
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  sendSingle(identifiers, std::nullopt, Dictionary{{"k", 1}});
  EXPECT_TRUE(connection->deliveries().empty());
}

TEST_F(CorviddSessionSingleMessageTest, WithoutACallbackIsSentAllTheSame) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  const auto kept = *table;
  agent->storebag = Dictionary{};
  session->sendMessageWithSessionInfo(identifiers, std::nullopt, 1, 2, std::nullopt, {});
  EXPECT_EQ(backend.sent.size(), 1u);
  EXPECT_EQ(backend.sent[0].payload, std::nullopt);
}

TEST_F(CorviddSessionSingleMessageTest, UserInfoThatWasNotAnnouncedIsSentWithAWarning) {
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  EXPECT_EQ(sendSingle(identifiers, Dictionary{}).result(), "finished");
  EXPECT_THAT(platform.log.texts(LogLevel::warning),
              ElementsAre("sendMessageWithSessionInfo: user info provided without requiring it."));
}

TEST_F(CorviddSessionSingleMessageTest, WithoutUserInfoThereIsNothingToWarnAbout) {
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  sendSingle(identifiers);
  EXPECT_THAT(platform.log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(CorviddSessionSingleMessageTest, WithoutBackendsIsStillFinished) {
  agent->storebag = Dictionary{};
  EXPECT_EQ(sendSingle(identifiers).result(), "finished");
  EXPECT_THAT(
      platform.log.texts(LogLevel::error),
      ElementsAre("sendMessageWithSessionInfo: No backends available to send single message"));
}

TEST_F(CorviddSessionSingleMessageTest, CountsOnceWhereNothingTakesIt) {
  sendSingle({});
  EXPECT_EQ(dropped(Reason::noSessionInfo), 1u);
  sendSingle(identifiers);
  EXPECT_EQ(dropped(Reason::storebagUnreachable), 1u);
  agent->storebag = Dictionary{};
  sendSingle(identifiers);
  EXPECT_EQ(dropped(Reason::noBackendMade), 1u) << "no table of backends";
  table.emplace();
  sendSingle(identifiers);
  EXPECT_EQ(dropped(Reason::noBackendMade), 2u) << "an empty one";
}

TEST_F(CorviddSessionSingleMessageTest, WithoutBackendsTheUserInfoIsNotWarnedAbout) {
  const Dictionary storebag;
  const Dictionary user;
  sendSingleDirectly(&identifiers, &user, &storebag);
  EXPECT_THAT(platform.log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(CorviddSessionSingleMessageTest, LogsTheSessionIDAsASignedNumberBeforeAnythingElse) {
  const Dictionary storebag;
  const Dictionary negative{{"SessionID", -3}};
  sendSingleDirectly(&negative, nullptr, &storebag);
  EXPECT_EQ(platform.log.lines().front(),
            std::pair(LogLevel::debug,
                      std::string(
                          "sendMessageWithSessionInfo: Sending single message with sessionID -3")));
  platform.log.clear();
  const Dictionary large{{"SessionID", 4294967297}};
  sendSingleDirectly(&large, nullptr, &storebag);
  EXPECT_TRUE(platform.log.has(
      LogLevel::debug,
      "sendMessageWithSessionInfo: Sending single message with sessionID 4294967297"));
}

TEST_F(CorviddSessionSingleMessageTest, WithoutAnswersNothingIsWrittenToTheMessageLog) {
  add(kCorvidBackendDashboard);
  add(kCorvidBackendHTTPPost).sendAnswer = "";
  agent->storebag = Dictionary{};
  sendSingle(identifiers);
  EXPECT_THAT(messageLog(), IsEmpty());
}

TEST_F(CorviddSessionSingleMessageTest, AnswersAreLoggedUnderTheTableKey) {
  addAs("key", kCorvidBackendHTTPPost).sendAnswer = "text";
  agent->storebag = Dictionary{};
  sendSingle(identifiers);
  EXPECT_THAT(messageLog(), ElementsAre("[key -> sendMessageWithSessionInfo] text"));
}

TEST_F(CorviddSessionSingleMessageTest, ReplacesTheSessionInfoOfAConfiguredSessionNotItsBackends) {
  FakeBackend& kept = add(kCorvidBackendHTTPPost);
  configureAndStart();
  agent->storebag = std::nullopt;
  sendSingle(identifiers);
  EXPECT_EQ(*session->sessionInfo(), identifiers);
  send(3, 4);
  EXPECT_EQ(kept.sent.back().method, 3);
}

TEST_F(CorviddSessionSingleMessageTest, ANewUserInfoOfNoneKeepsOneThatIsRequired) {
  const Dictionary user{{"_clientName", "a"}};
  Dictionary info = identifiers;
  info.set("RequireUserInfo", true);
  sendSingle(info, user);
  sendSingle(info);
  EXPECT_EQ(*session->userInfo(), user);
}

TEST_F(CorviddSessionSingleMessageTest, WithoutSessionInfoOrStorebagNothingIsMade) {
  add(kCorvidBackendHTTPPost);
  const Dictionary storebag;
  sendSingleDirectly(nullptr, nullptr, &storebag);
  sendSingleDirectly(&identifiers, nullptr, nullptr);
  EXPECT_TRUE(creations.empty());
  EXPECT_EQ(platform.log.count(LogLevel::error,
                               "RsendMessageWithSessionInfo: Attempted to send message with one "
                               "or more nil parameters"),
            2);
  EXPECT_TRUE(platform.log.has(
      LogLevel::debug, "sendMessageWithSessionInfo: Sending single message with sessionID 0"));
}

TEST_F(CorviddSessionSingleMessageTest, AStorebagThatCannotBeUsedLeavesTheReplyUnanswered) {
  agent->storebagFailure = Failure{"no version"};
  RecordedReply<MessageAnswer> recorded;
  session->sendMessageWithSessionInfo(identifiers, std::nullopt, 1, 2, std::nullopt,
                                      recorded.reply());
  EXPECT_TRUE(recorded.unanswered());
}

}  // namespace
}  // namespace corvid
