#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;

using CorviddSessionTeardownTest = SessionTest;

TEST_F(CorviddSessionTeardownTest, FarewellTakesItsStepsInOrder) {
  add(kCorvidBackendDashboard);
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  session.reset();
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent getAncestorWithAggregatorForSession", "dashboard sendMessage 0 1",
                          "httpPost sendMessage 0 1", "dashboard flush", "httpPost flush",
                          "dashboard cleanup", "httpPost cleanup", ::testing::_, ::testing::_));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("dealloc: CorviddSession dealloc: 7",
                          "internalSendMessage: Sent internal message (method:0 respCode:1)",
                          "internalFlushMessagesWithCompletion: dashboard",
                          "internalFlushMessagesWithCompletion: httpPost",
                          "shutdownSessionAggregation: Disable aggregation module for session 7"));
}

TEST_F(CorviddSessionTeardownTest, ASessionThatNeverStartedSaysFarewellToNobody) {
  platform.log.clear();
  session.reset();
  EXPECT_THAT(journal->entries(), ElementsAre());
  EXPECT_THAT(
      platform.log.texts(LogLevel::debug),
      ElementsAre("dealloc: CorviddSession dealloc: 0",
                  "sendMessageWithDictionary: No backends available to send message",
                  "internalSendMessage: Sent internal message (method:0 respCode:1)",
                  "internalFlushMessagesWithCompletion: No backends available to send message",
                  "shutdownSessionAggregation: Disable aggregation module for session 0"));
}

TEST_F(CorviddSessionTeardownTest, TheEndMessageNamesTheStorebagVersion) {
  agent->storebagVersion = "2.1";
  add(kCorvidBackendHTTPPost);
  const auto kept = std::static_pointer_cast<FakeBackend>(table->at("httpPost"));
  configureAndStart();
  session.reset();
  EXPECT_EQ(kept->sent.back().payload, (Dictionary{{"StorebagVersion", "2.1"}}));
  EXPECT_EQ(kept->sent.back().flag, MessageFlag{0});
}

TEST_F(CorviddSessionTeardownTest, WithoutAVersionTheEndMessageIsAnEmptyDictionary) {
  add(kCorvidBackendHTTPPost);
  const auto kept = std::static_pointer_cast<FakeBackend>(table->at("httpPost"));
  configureAndStart();
  session.reset();
  EXPECT_EQ(kept->sent.back().payload, Dictionary{});
}

TEST_F(CorviddSessionTeardownTest, TheClientsAggregatorHearsTheEndAndThenTheShutdown) {
  add(kCorvidBackendHTTPPost);
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  const std::size_t before = connection->deliveries().size();
  session.reset();
  const auto deliveries = connection->deliveries();
  ASSERT_EQ(deliveries.size(), before + 2);
  EXPECT_EQ(deliveries[before].message, (Dictionary{{"SessionID", 7}}));
  EXPECT_EQ(deliveries[before].category, 0);
  EXPECT_EQ(deliveries[before].type, 1);
  EXPECT_EQ(deliveries[before].payload, Dictionary{});
  EXPECT_EQ(deliveries[before + 1].message, std::nullopt);
  EXPECT_EQ(deliveries[before + 1].timestamp, 0.0);
  EXPECT_EQ(deliveries[before + 1].category, 0);
  EXPECT_EQ(deliveries[before + 1].type, 0);
  EXPECT_EQ(deliveries[before + 1].payload, std::nullopt);
}

TEST_F(CorviddSessionTeardownTest, TheEndMessageReachesAnAncestorsAggregator) {
  auto ancestorConnection = std::make_shared<FakeConnection>();
  agent->ancestor = newSession(ancestorConnection);
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  const std::size_t before = ancestorConnection->deliveries().size();
  session.reset();
  const auto deliveries = ancestorConnection->deliveries();
  ASSERT_EQ(deliveries.size(), before + 1);
  EXPECT_EQ(deliveries.back().type, 1);
}

TEST_F(CorviddSessionTeardownTest, BackendsAndConnectionAreReleased) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  const std::weak_ptr<FakeConnection> client = connection;
  connection.reset();
  session.reset();
  EXPECT_TRUE(client.expired());
  EXPECT_EQ(journal->entries().back(), "httpPost gone");
}

TEST_F(CorviddSessionTeardownTest, AFlushUnderWayAnswersAfterTheSessionIsGone) {
  add(kCorvidBackendHTTPPost).flushAnswer = std::nullopt;
  const auto kept = std::static_pointer_cast<FakeBackend>(table->at("httpPost"));
  configureAndStart();
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  session.reset();
  forgetWhatHappened();
  ASSERT_EQ(kept->heldFlushes.size(), 2u);  // the client's and the farewell's
  for (FlushCompletion& completion : kept->heldFlushes) completion("late", std::nullopt);
  EXPECT_EQ(flushed.result(), "late");
  EXPECT_THAT(messageLog(),
              ElementsAre("[httpPost -> flushMessages] late", "[httpPost -> flushMessages] late"));
}

}  // namespace
}  // namespace corvid
