// The stand-in for a daemon in tests of hosts in C++.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <corvid/testing.hpp>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Waiting.h"

namespace corvid::client {
namespace {

using testing::ElementsAre;

class TestSinkOfHeader : public testing::Test {
 protected:
  TestSink sink;

  Session::Options options() {
    Session::Options options;
    options.testSink = sink.get();
    return options;
  }
  // The text and the reason that a message is answered with.
  static std::string send(Session& session) {
    std::promise<std::string> answered;
    EXPECT_TRUE(session.sendMessage(
        1, 2, Session::none(), [&](Status status, std::optional<std::string> text) {
          answered.set_value(!status ? status.text()
                                     : text.value_or("none") + " " +
                                           std::string(Answer::current().reason.value_or("taken")));
        }));
    return answered.get_future().get();
  }
};

TEST_F(TestSinkOfHeader, ShowsEachCallWithWhatItCarries) {
  ASSERT_TRUE(sink.status());
  Session session(options());
  ASSERT_TRUE(session.setSessionInfo(Dictionary{{"a", 1}}, Dictionary{{"b", 2}}, Array{"c"}, true));
  ASSERT_TRUE(session.sendMessage(7, 2, Dictionary{{"seconds", 1.5}}));
  ASSERT_TRUE(session.sendMessage(Dictionary{{"d", 3}}, [](Status, std::optional<std::string>) {}));
  ASSERT_TRUE(session.uploadFile("/no such file"));
  ASSERT_TRUE(sink.awaitCalls(4));
  EXPECT_FALSE(sink.awaitCalls(5, std::chrono::milliseconds(1)));

  EXPECT_EQ(sink[0].operation, CORVID_OPERATION_SET_SESSION_INFO);
  EXPECT_EQ(sink[0].sessionInfo["a"].integer(), 1);
  EXPECT_EQ(sink[0].userInfo["b"].integer(), 2);
  EXPECT_EQ(sink[0].array[0].string(), "c");
  EXPECT_TRUE(sink[0].hasAggregationBlock);
  EXPECT_EQ(sink[1].category, 7);
  EXPECT_EQ(sink[1].type, 2);
  EXPECT_EQ(sink[1].payload["seconds"].real(), 1.5);
  EXPECT_FALSE(sink[1].message);
  EXPECT_FALSE(sink[1].wantsAnswer);
  EXPECT_EQ(sink[2].message["d"].integer(), 3);
  EXPECT_TRUE(sink[2].wantsAnswer);
  EXPECT_EQ(sink[3].fileURL, "file:///no%20such%20file");
  std::vector<corvid_operation_t> operations;
  for (const TestSink::Call call : sink) operations.push_back(call.operation);
  EXPECT_THAT(
      operations,
      ElementsAre(CORVID_OPERATION_SET_SESSION_INFO, CORVID_OPERATION_SEND_MESSAGE,
                  CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY, CORVID_OPERATION_UPLOAD_FILE));
  sink.clear();
  EXPECT_EQ(sink.size(), 0u);
}

TEST_F(TestSinkOfHeader, AnswersAsPlanned) {
  ASSERT_TRUE(sink.answer(CORVID_OPERATION_SEND_MESSAGE, {.reason = "noConsent"}, 1));
  ASSERT_TRUE(sink.answer(CORVID_OPERATION_SEND_MESSAGE, {.error = CORVID_ERROR_NOT_SUPPORTED}, 1));
  ASSERT_TRUE(sink.answer(CORVID_OPERATION_SEND_MESSAGE, {.text = "text"}));
  Session session(options());
  EXPECT_EQ(send(session), "none noConsent");
  EXPECT_EQ(send(session), corvid_error_text(CORVID_ERROR_NOT_SUPPORTED));
  EXPECT_EQ(send(session), "text taken");
  EXPECT_EQ(send(session), "text taken");
}

TEST_F(TestSinkOfHeader, AnswersWithTheDaemonsErrors) {
  ASSERT_TRUE(sink.answer(CORVID_OPERATION_UPLOAD_FILE,
                          {.success = false, .failure = Error{"domain", 7, "no room"}}));
  Session session(options());
  std::promise<std::string> ended;
  ASSERT_TRUE(
      session.uploadFile("/dev/null", [&](Status, bool success, std::optional<Error> failure) {
        ended.set_value(success ? "success" : failure->description);
      }));
  EXPECT_EQ(ended.get_future().get(), "no room");
}

TEST_F(TestSinkOfHeader, AnswersWithStatesAndTellsTheirChange) {
  States states;
  states.add(CORVID_BACKEND_HTTP_POST, "sending", "reporting").add("other", "waiting", "noConfig");
  ASSERT_TRUE(states.status());
  EXPECT_EQ(StatesView(states).size(), 2u);
  ASSERT_TRUE(sink.answer(CORVID_OPERATION_START_CONFIG, {.states = &states}));
  std::promise<std::string> started, changed;
  Session::Options options = this->options();
  options.statesChanged = [&](StatesView now) {
    changed.set_value(std::string(now.reason().value_or("none")));
  };
  Session session(std::move(options));
  ASSERT_TRUE(session.startConfig([&](Status, std::optional<Array> reporting) {
    started.set_value(std::string(ArrayView(*reporting)[0].string().value()));
  }));
  EXPECT_EQ(started.get_future().get(), CORVID_BACKEND_HTTP_POST);
  ASSERT_TRUE(sink.changeStates(States("noConsent")));
  EXPECT_EQ(changed.get_future().get(), "noConsent");
}

TEST_F(TestSinkOfHeader, DeliversGoesAndComesBack) {
  std::atomic<int> delivered = 0, connections = 0, invalidations = 0, reconnections = 0;
  Session::Options options = this->options();
  options.message = [&](DictionaryView message, double, std::uint16_t category, std::uint16_t,
                        DictionaryView payload) {
    EXPECT_FALSE(message);
    EXPECT_EQ(payload["n"].integer(), 4);
    delivered = category;
  };
  options.connected = [&] { ++connections; };
  options.invalidated = [&] { ++invalidations; };
  options.reconnected = [&] { ++reconnections; };
  ASSERT_TRUE(sink.setReachable(false));
  Session session(std::move(options));
  EXPECT_EQ(session.connect().code(), CORVID_ERROR_NOT_CONNECTED);
  ASSERT_TRUE(sink.setReachable(true));
  ASSERT_TRUE(session.connect());
  EXPECT_TRUE(waitUntil([&] { return connections == 1; }));
  ASSERT_TRUE(sink.deliver(7, 1, Dictionary{{"n", 4}}));
  EXPECT_TRUE(waitUntil([&] { return delivered == 7; }));
  ASSERT_TRUE(sink.disconnect());
  EXPECT_TRUE(waitUntil([&] { return invalidations == 1; }));
  ASSERT_TRUE(session.connect());
  EXPECT_TRUE(waitUntil([&] { return reconnections == 1; }));
}

}  // namespace
}  // namespace corvid::client
