#include <limits>

#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;

class CorviddSessionDispatchTest : public SessionTest {
 protected:
  Dictionary message(Value category, Value type) {
    return {{"Category", std::move(category)}, {"Type", std::move(type)}};
  }
};

TEST_F(CorviddSessionDispatchTest, WithoutBackendsNothingIsSent) {
  session->setSessionID(7);
  platform.log.clear();
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7",
                          "sendMessageWithDictionary: No backends available to send message"));
  EXPECT_THAT(journal->entries(), ElementsAre());
}

TEST_F(CorviddSessionDispatchTest, WithoutBackendsTheMessageItselfIsNotExamined) {
  platform.log.clear();
  EXPECT_EQ(send(Dictionary{}), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 0",
                          "sendMessageWithDictionary: No backends available to send message"));
}

TEST_F(CorviddSessionDispatchTest, TheCategoryFormSendsItsPartsWithFlagZero) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  platform.clock->set({1'700'000'123, 250'000});
  EXPECT_EQ(send(11, 65535, Dictionary{{"k", "v"}}), std::nullopt);
  const FakeBackend::Sent& sent = backend.sent.back();
  EXPECT_EQ(sent.payload, (Dictionary{{"k", "v"}}));
  EXPECT_EQ(sent.timestamp, (TimeValue{1'700'000'123, 250'000}));
  EXPECT_EQ(sent.method, 11);
  EXPECT_EQ(sent.respCode, 65535);
  EXPECT_EQ(sent.flag, MessageFlag{0});
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7"));
}

TEST_F(CorviddSessionDispatchTest, AnAbsentPayloadStaysAbsentAndAnEmptyOneEmpty) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send(1, 2);
  EXPECT_EQ(backend.sent.back().payload, std::nullopt);
  send(1, 2, Dictionary{});
  EXPECT_EQ(backend.sent.back().payload, Dictionary{});
}

TEST_F(CorviddSessionDispatchTest, TheDictionaryFormLogsTheCategoryFormsText) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send({{"Category", 3}, {"Type", 4}, {"Flag", 2}, {"Payload", Dictionary{{"k", 1}}}});
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7"));
  const FakeBackend::Sent& sent = backend.sent.back();
  EXPECT_EQ(sent.method, 3);
  EXPECT_EQ(sent.respCode, 4);
  EXPECT_EQ(sent.flag, MessageFlag{2});
  EXPECT_EQ(sent.payload, (Dictionary{{"k", 1}}));
}

TEST_F(CorviddSessionDispatchTest, AMessageWithNeitherCategoryNorTypeLogsTheCategoryOnly) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  backend.sent.clear();
  EXPECT_EQ(send(Dictionary{}), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7",
                          "sendMessageWithDictionary: Missing mandatory parameter 'category'"));
  EXPECT_TRUE(backend.sent.empty());
  EXPECT_THAT(journal->entries(), ElementsAre());
}

TEST_F(CorviddSessionDispatchTest, AMessageWithoutATypeIsNotSent) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  backend.sent.clear();
  EXPECT_EQ(send({{"Category", 1}}), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7",
                          "sendMessageWithDictionary: Missing mandatory parameter 'type'"));
  EXPECT_TRUE(backend.sent.empty());
  EXPECT_THAT(journal->entries(), ElementsAre());
}

TEST_F(CorviddSessionDispatchTest, CategoryAndTypeOfAWrongTypeCountAsAbsent) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  const std::vector<Value> wrong{true, "1", Data{"1"}, Date{1}, Array{1}, Dictionary{}, Value()};
  for (const Value& value : wrong) {
    platform.log.clear();
    send(message(value, 2));
    EXPECT_TRUE(platform.log.has(
        LogLevel::debug, "sendMessageWithDictionary: Missing mandatory parameter 'category'"));
    send(message(1, value));
    EXPECT_TRUE(platform.log.has(LogLevel::debug,
                                 "sendMessageWithDictionary: Missing mandatory parameter 'type'"));
  }
}

TEST_F(CorviddSessionDispatchTest, CategoryAndTypeKeepTheirLow16Bits) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send(message(65536 + 5, 131072 + 6));
  EXPECT_EQ(backend.sent.back().method, 5);
  EXPECT_EQ(backend.sent.back().respCode, 6);
  send(message(-1, 70000.9));
  EXPECT_EQ(backend.sent.back().method, 65535);
  EXPECT_EQ(backend.sent.back().respCode, 4464);
}

TEST_F(CorviddSessionDispatchTest, FlagAndPayloadOfAWrongTypeCountAsAbsent) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send({{"Category", 1}, {"Type", 2}, {"Flag", "3"}, {"Payload", Array{1}}});
  EXPECT_EQ(backend.sent.back().flag, MessageFlag{0});
  EXPECT_EQ(backend.sent.back().payload, std::nullopt);
  send({{"Category", 1}, {"Type", 2}, {"Flag", true}});
  EXPECT_EQ(backend.sent.back().flag, MessageFlag{0});
  send({{"Category", 1}, {"Type", 2}, {"Flag", 3.0}});
  EXPECT_EQ(backend.sent.back().flag, MessageFlag{3});
}

TEST_F(CorviddSessionDispatchTest, TheFlagKeepsItsLow32Bits) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send({{"Category", 1}, {"Type", 2}, {"Flag", 0x1'0000'0003}});
  EXPECT_EQ(backend.sent.back().flag, MessageFlag{3});
}

TEST_F(CorviddSessionDispatchTest, EveryBackendGetsTheSameTime) {
  FakeBackend& first = add(kCorvidBackendDashboard);
  FakeBackend& second = add(kCorvidBackendHTTPPost);
  configureAndStart();
  send(1, 2);
  EXPECT_EQ(first.sent.back().timestamp, second.sent.back().timestamp);
}

TEST_F(CorviddSessionDispatchTest, TheHTTPAnswerWinsOverTheDashboards) {
  FakeBackend& dashboard = add(kCorvidBackendDashboard);
  FakeBackend& http = add(kCorvidBackendHTTPPost);
  configureAndStart();
  dashboard.sendAnswer = "dashboard text";
  EXPECT_EQ(send(1, 2), "dashboard text");
  http.sendAnswer = "http text";
  EXPECT_EQ(send(1, 2), "http text");
}

TEST_F(CorviddSessionDispatchTest, TheHTTPAnswerWinsWhateverTheOrder) {
  FakeBackend& http = addAs("a", kCorvidBackendHTTPPost);
  FakeBackend& dashboard = addAs("b", kCorvidBackendDashboard);
  configureAndStart();
  http.sendAnswer = "http text";
  dashboard.sendAnswer = "dashboard text";
  EXPECT_EQ(send(1, 2), "http text");
}

TEST_F(CorviddSessionDispatchTest, AnEmptyHTTPAnswerReplacesNothing) {
  FakeBackend& dashboard = add(kCorvidBackendDashboard);
  FakeBackend& http = add(kCorvidBackendHTTPPost);
  configureAndStart();
  http.sendAnswer = "";
  EXPECT_EQ(send(1, 2), std::nullopt);
  dashboard.sendAnswer = "dashboard text";
  EXPECT_EQ(send(1, 2), "dashboard text");
}

TEST_F(CorviddSessionDispatchTest, AnEmptyDashboardAnswerIsTakenUntilTheHTTPAnswerComes) {
  add(kCorvidBackendDashboard).sendAnswer = "";
  FakeBackend& http = add(kCorvidBackendHTTPPost);
  configureAndStart();
  EXPECT_EQ(send(1, 2), "");
  http.sendAnswer = "http text";
  EXPECT_EQ(send(1, 2), "http text");
}

TEST_F(CorviddSessionDispatchTest, AnEmptyAnswerIsWrittenToTheMessageLogToo) {
  add(kCorvidBackendHTTPPost).sendAnswer = "";
  configureAndStart();
  send(1, 2);
  EXPECT_THAT(messageLog(), ElementsAre("[httpPost -> sendMessageWithDictionary] "));
}

TEST_F(CorviddSessionDispatchTest, AnswersOfOtherBackendsNeverReachTheReply) {
  for (const std::string_view name : {kCorvidBackendHTTPPost2, kCorvidBackendMetrix,
                                      kCorvidBackendUploadServer, kCorvidBackendWattbook})
    add(name).sendAnswer = "text";
  configureAndStart();
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_THAT(messageLog(), ElementsAre("[httpPost2 -> sendMessageWithDictionary] text",
                                        "[metrix -> sendMessageWithDictionary] text",
                                        "[uploadServer -> sendMessageWithDictionary] text",
                                        "[wattbook -> sendMessageWithDictionary] text"));
}

TEST_F(CorviddSessionDispatchTest, AnswersAreLoggedUnderTheTableKeyAndFoldedByName) {
  addAs("key", kCorvidBackendHTTPPost).sendAnswer = "text {} %s";
  configureAndStart();
  EXPECT_EQ(send(1, 2), "text {} %s");
  EXPECT_THAT(messageLog(), ElementsAre("[key -> sendMessageWithDictionary] text {} %s"));
}

TEST_F(CorviddSessionDispatchTest, ASilentBackendLeavesNoLineInTheMessageLog) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_THAT(messageLog(), ElementsAre());
}

TEST_F(CorviddSessionDispatchTest, AnEmptyTableAnswersNone) {
  configureAndStart();
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("sendMessageWithCategory: Sending message for session 7"));
}

TEST_F(CorviddSessionDispatchTest, TheAggregatorIsOfferedTheMessageBeforeTheBackends) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  send(1, 2);
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent getAncestorWithAggregatorForSession", "httpPost sendMessage 1 2"));
}

TEST_F(CorviddSessionDispatchTest, SendsWithoutACallback) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  backend.sent.clear();
  session->sendMessageWithCategory(1, 2, std::nullopt, {});
  session->sendMessageWithDictionary(message(1, 2), {});
  session->finishSessionWithReply({});
  EXPECT_EQ(backend.sent.size(), 3u);
}

TEST_F(CorviddSessionDispatchTest, FinishingDispatchesCategory0Type2AndAnswersItsResult) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  backend.sendAnswer = "done";
  RecordedResult finished;
  session->finishSessionWithReply(finished.reply());
  EXPECT_EQ(finished.result(), "done");
  EXPECT_EQ(backend.sent.back().method, 0);
  EXPECT_EQ(backend.sent.back().respCode, 2);
  EXPECT_EQ(backend.sent.back().payload, std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("finishSessionWithReply: Finishing session 7"));
}

TEST_F(CorviddSessionDispatchTest, FinishingWithoutBackendsAnswersNone) {
  platform.log.clear();
  RecordedResult finished;
  session->finishSessionWithReply(finished.reply());
  EXPECT_EQ(finished.result(), std::nullopt);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("finishSessionWithReply: Finishing session 0",
                          "sendMessageWithDictionary: No backends available to send message"));
}

TEST_F(CorviddSessionDispatchTest, ASessionStaysUsableAfterItsFinish) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  configureAndStart();
  session->finishSessionWithReply({});
  backend.sendAnswer = "still there";
  EXPECT_EQ(send(1, 2), "still there");
}

class CorviddSessionDisplayURLTest : public SessionTest {
 protected:
  std::string fetched() {
    RecordedReply<std::string> url;
    session->fetchDisplayURL(url.reply());
    return url.result();
  }
};

TEST_F(CorviddSessionDisplayURLTest, IsThatOfTheFirstBackendThatHasOne) {
  const auto fetchedWhere = [&](std::optional<std::string> first,
                                std::optional<std::string> second) {
    add(kCorvidBackendDashboard, "dashboard url");
    add(kCorvidBackendHTTPPost2, std::move(second));
    add(kCorvidBackendHTTPPost, std::move(first));
    configureAndStart();
    return fetched();
  };
  EXPECT_EQ(fetchedWhere(std::nullopt, std::nullopt), "dashboard url");
  EXPECT_EQ(fetchedWhere(std::nullopt, "second url"), "second url");
  EXPECT_EQ(fetchedWhere("first url", "second url"), "first url");
}

TEST_F(CorviddSessionDisplayURLTest, FallsThroughToTheDashboardWhereTheSecondIsMissing) {
  add(kCorvidBackendHTTPPost);
  add(kCorvidBackendDashboard, "dashboard url");
  configureAndStart();
  EXPECT_EQ(fetched(), "dashboard url");
}

TEST_F(CorviddSessionDisplayURLTest, IsNotAvailableFromOtherBackendsOrNone) {
  EXPECT_EQ(fetched(), "URL not available");
  EXPECT_TRUE(
      platform.log.has(LogLevel::debug, "fetchDisplayURL: Fetching display URL for session 0"));
  add(kCorvidBackendUploadServer, "upload url");
  configureAndStart();
  EXPECT_EQ(fetched(), "URL not available");
}

}  // namespace
}  // namespace corvid
