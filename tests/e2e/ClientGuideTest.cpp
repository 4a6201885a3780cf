// What docs/client.md promises of the daemon and no reader would guess.
#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <string>

#include "base/Reading.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class ClientGuide : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
    startDaemon();
  }
  // How a message ended: "taken", or why nobody took it.
  static client::Session::TextCallback fateTo(const TestClient::Outcome& outcome) {
    return [outcome](client::Status, const std::optional<std::string>&) {
      const client::Answer answer = client::Answer::current();
      outcome.set(answer.disposition == CORVID_DISPOSITION_TAKEN
                      ? "taken"
                      : std::string(answer.reason.value_or("unknown")));
    };
  }
  Dictionary arrived(const std::string& mark) {
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
    for (const Dictionary& record : records())
      if (textAt(record, "mark") == mark) return record;
    return {};
  }
};

TEST_F(ClientGuide, OfEveryTypeOfValueItIsPostedWhatTheTableSays) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({}).text(), "httpPost");
  const client::Dictionary payload{{"mark", "values"},
                                   {"boolean", true},
                                   {"integer", 7},
                                   {"real", 1.5},
                                   {"date", client::Date{1700000000.25}},
                                   {"data", client::Data{"hej"}},
                                   {"array", client::Array{1, 2}},
                                   {"dictionary", client::Dictionary{{"a", 1}}},
                                   {"null", nullptr},
                                   {"_method", 99}};
  client.send(payload);
  ASSERT_EQ(client.flush().text(), "flushed");
  const Dictionary record = arrived("values");
  EXPECT_EQ(asBoolean(record.find("boolean")), true);
  EXPECT_EQ(integerAt(record, "integer"), 7);
  EXPECT_EQ(asNumber(record.find("real")), 1.5);
  EXPECT_EQ(asNumber(record.find("date")), 1700000000.25);
  for (const char* const key : {"data", "array", "dictionary", "null"})
    EXPECT_FALSE(record.contains(key)) << key;
  EXPECT_EQ(integerAt(record, "_method"), 7);
}

TEST_F(ClientGuide, UserInfoWinsOverPayloadAndDaemon) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientName = "Player"}).text(), "httpPost");
  client.fetchStates(client::Dictionary{
      {"_clientName", "Player"}, {"colour", "of the user"}, {"_build", "of the user"}});
  client.send(client::Dictionary{{"mark", "user"}, {"colour", "of the event"}});
  ASSERT_EQ(client.flush().text(), "flushed");
  const Dictionary record = arrived("user");
  EXPECT_EQ(textAt(record, "colour"), "of the user");
  EXPECT_EQ(textAt(record, "_build"), "of the user");
}

TEST_F(ClientGuide, ARealThatIsNotFiniteLosesItsBatch) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({}).text(), "httpPost");
  client.send("beside it");
  client.send(client::Dictionary{{"real", std::numeric_limits<double>::infinity()}});
  EXPECT_EQ(client.flush().text(), "-1 Nothing to flush");
  client.send("after it");
  EXPECT_EQ(client.flush().text(), "flushed");
  arrived("after it");
  EXPECT_EQ(arrivals("beside it"), 0u);
}

TEST_F(ClientGuide, AFlushBeforeThereIsUserInfoDiscardsWhatWaits) {
  TestClient client(_root.path());
  const client::Dictionary info{{CORVID_KEY_CLIENT_TYPE, 5}, {CORVID_KEY_REQUIRE_USER_INFO, true}};
  ASSERT_TRUE(client.session().setSessionInfo(info));
  ASSERT_TRUE(client.session().startConfig());
  client.send("flushed too early");
  EXPECT_EQ(client.flush().text(), "-1 Nothing to flush");
  client.send("waits");
  client.fetchStates(client::Dictionary{{"_clientName", "Player"}});
  EXPECT_EQ(client.flush().text(), "flushed");
  arrived("waits");
  EXPECT_EQ(arrivals("flushed too early"), 0u);
}

TEST_F(ClientGuide, ASingleMessageThatWouldWaitInABatchIsDropped) {
  TestClient client(_root.path());
  const client::Dictionary info{{CORVID_KEY_CLIENT_TYPE, 5}, {CORVID_KEY_SESSION_ID, 1}};
  const client::Dictionary payload{{"mark", "single"}};
  const TestClient::Outcome batched;
  ASSERT_TRUE(client.session().sendSingleMessage(info, client::Session::none(), 7, 2, payload,
                                                 fateTo(batched)));
  EXPECT_EQ(batched.text(), "notFlushed");
  publish("orrery", storebagPostingTo(urlOf("events")));
  const client::Dictionary atOnce{{CORVID_KEY_CLIENT_TYPE, 8}, {CORVID_KEY_SESSION_ID, 1}};
  const TestClient::Outcome posted;
  ASSERT_TRUE(client.session().sendSingleMessage(atOnce, client::Session::none(), 7, 2, payload,
                                                 fateTo(posted)));
  EXPECT_EQ(posted.text(), "taken");
  arrived("single");
}

TEST_F(ClientGuide, WithoutOneBackendAFlushIsNotAnswered) {
  publish("orrery", {{"version", "1"}, {"release", Dictionary{{"httpPost", Dictionary{}}}}});
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 8}).text(), "");
  EXPECT_EQ(client.flush().text(), "unanswered");
}

TEST_F(ClientGuide, TheEventThatFindsItsBatchAtTheThresholdIsDropped) {
  Dictionary entry = batchesForEverybody();
  entry.set("event_threshold", 1);
  publish("orrery", storebagPostingTo(urlOf("events"), entry));
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 8}).text(), "httpPost");
  for (const char* const mark : {"first", "second", "third", "fourth"}) client.send(mark);
  ASSERT_EQ(client.flush().text(), "flushed");
  for (const char* const mark : {"first", "second", "fourth"}) arrived(mark);
  EXPECT_EQ(arrivals("third"), 0u);
}

}  // namespace
}  // namespace corvid
