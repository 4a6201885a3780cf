// Every operation of the client library against a real listener.
#include <gtest/gtest.h>

#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

using client::Session;
using client::Status;

class ClientCalls : public SessionFixture {
 protected:
  void SetUp() override {
    delegate->onSession = [this](RecordingSession& recording,
                                 const std::shared_ptr<Connection>& connection) {
      if (prepare) prepare(recording, connection);
    };
    start();
    session.emplace(options());
  }
  void TearDown() override {
    session.reset();
    ServiceFixture::TearDown();
  }
  // Counts ended calls and keeps how they ended.
  Session::Finished finished() {
    return [this](corvid_outcome_t outcome) { note([&] { outcomes.push_back(outcome); }); };
  }
  bool awaitEnded(std::size_t calls) {
    return await([&] { return outcomes.size() >= calls; });
  }
  std::vector<RecordingSession::Call> recorded() { return delegate->at(0).session->calls(); }

  std::function<void(RecordingSession&, const std::shared_ptr<Connection>&)> prepare;
  std::optional<Session> session;
  std::vector<corvid_outcome_t> outcomes;
};

client::Dictionary everyType() {
  client::Dictionary d;
  client::Array inner;
  client::Dictionary deep;
  EXPECT_TRUE(inner.append(1) && inner.append("two") && inner.append(3.5) && inner.append(nullptr));
  EXPECT_TRUE(deep.set("array", inner));
  EXPECT_TRUE(d.set("null", nullptr));
  EXPECT_TRUE(d.set("true", true));
  EXPECT_TRUE(d.set("integer", std::int64_t{-9007199254740993}));
  EXPECT_TRUE(d.set("real", 0.1));
  EXPECT_TRUE(d.set("date", client::Date{1700000000.5}));
  EXPECT_TRUE(d.set("text", "gr\u00fc\u00df dich"));
  EXPECT_TRUE(d.set("zero", std::string_view("a\0b", 3)));
  EXPECT_TRUE(d.set("data", client::Data{std::string_view("\0\xff", 2)}));
  EXPECT_TRUE(d.set("array", inner));
  EXPECT_TRUE(d.set("dictionary", deep));
  return d;
}

Dictionary everyTypeInside() {
  const Array inner{1, "two", 3.5, Value()};
  return {{"null", Value()},
          {"true", true},
          {"integer", -9007199254740993},
          {"real", 0.1},
          {"date", Date{1700000000.5}},
          {"text", "gr\u00fc\u00df dich"},
          {"zero", std::string("a\0b", 3)},
          {"data", Data{std::string("\0\xff", 2)}},
          {"array", inner},
          {"dictionary", Dictionary{{"array", inner}}}};
}

TEST_F(ClientCalls, AnEventCarriesEveryTypeAndIsAnswered) {
  std::optional<std::string> answer;
  ASSERT_TRUE(session->sendMessage(
      65535, 9, everyType(),
      [&](Status status, std::optional<std::string> text) {
        EXPECT_TRUE(status);
        answer = std::move(text);
      },
      finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(answer, "sent 65535");
  EXPECT_EQ(outcomes[0], CORVID_OUTCOME_ANSWERED);
  EXPECT_EQ(recorded()[0].payload, everyTypeInside());
  EXPECT_EQ(recorded()[0].type, 9);
}

TEST_F(ClientCalls, AMessageDictionaryTravelsAsOne) {
  ASSERT_TRUE(session->sendMessage(everyType(), nullptr, finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(recorded()[0].name, "sendMessageWithDictionary");
  EXPECT_EQ(recorded()[0].dictionary, everyTypeInside());
}

TEST_F(ClientCalls, TextNothingAndUnansweredStayApart) {
  prepare = [](RecordingSession& s, auto&) {
    s.onMessage = [](std::uint16_t category, ResultReply reply) {
      if (category == 0) reply("text");
      if (category == 1) reply(std::nullopt);
    };
  };
  std::vector<std::string> answers;
  for (std::uint16_t category = 0; category < 3; ++category)
    ASSERT_TRUE(session->sendMessage(
        category, 0, Session::none(),
        [&](Status, std::optional<std::string> text) { answers.push_back(text.value_or("none")); },
        finished()));
  ASSERT_TRUE(session->sendMessage(0, 0, Session::none(), nullptr, finished()));
  ASSERT_TRUE(awaitEnded(4));
  EXPECT_EQ(answers, (std::vector<std::string>{"text", "none"}));
  EXPECT_EQ(outcomes,
            (std::vector<corvid_outcome_t>{CORVID_OUTCOME_ANSWERED, CORVID_OUTCOME_ANSWERED,
                                           CORVID_OUTCOME_UNANSWERED, CORVID_OUTCOME_DONE}));
  EXPECT_TRUE(recorded()[2].replyWanted);
  EXPECT_FALSE(recorded()[3].replyWanted);
}

TEST_F(ClientCalls, SessionInfoAndStates) {
  prepare = [](RecordingSession& s, auto&) { s.states = Array{"httpPost", "dashboard"}; };
  client::Dictionary info;
  client::Dictionary user;
  client::Array frameworks;
  ASSERT_TRUE(info.set(::kCorvidSessionInfoClientType, 3));
  ASSERT_TRUE(user.set(::kCorvidUserInfoClientName, "Client"));
  ASSERT_TRUE(frameworks.append("framework"));
  ASSERT_TRUE(session->setSessionInfo(info, user, frameworks, true, finished()));
  std::vector<std::string> states;
  const auto keep = [&](Status status, std::optional<client::Array> array) {
    EXPECT_TRUE(status);
    if (!array) return states.push_back("none");
    for (std::size_t i = 0; i < array->size(); ++i) states.emplace_back(*(*array)[i].string());
  };
  ASSERT_TRUE(session->startConfig(keep, finished()));
  ASSERT_TRUE(awaitEnded(2));
  delegate->at(0).session->states = std::nullopt;
  ASSERT_TRUE(session->fetchStates(user, keep, finished()));
  ASSERT_TRUE(awaitEnded(3));
  EXPECT_EQ(states, (std::vector<std::string>{"httpPost", "dashboard", "none"}));
  EXPECT_EQ(outcomes[0], CORVID_OUTCOME_DONE);
  EXPECT_EQ(recorded()[0].dictionary, (Dictionary{{"ClientType", 3}}));
  EXPECT_EQ(recorded()[0].userInfo, (Dictionary{{"_clientName", "Client"}}));
  EXPECT_EQ(recorded()[0].array, Array{"framework"});
  EXPECT_TRUE(recorded()[0].flag);
  EXPECT_EQ(recorded()[2].userInfo, (Dictionary{{"_clientName", "Client"}}));
}

TEST_F(ClientCalls, FlushHandsOverTextAndError) {
  std::optional<client::Error> failure;
  std::optional<std::string> text = "something";
  ASSERT_TRUE(session->flush(
      [&](Status, std::optional<std::string> result, std::optional<client::Error> error) {
        text = std::move(result);
        failure = std::move(error);
      },
      finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(text, std::nullopt);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->domain, ::kCorvidErrorDomain);
  EXPECT_EQ(failure->code, -1);
  EXPECT_EQ(failure->description, "No backends available to send message");
}

TEST_F(ClientCalls, TheOtherOperations) {
  std::vector<std::string> answers;
  const auto keepText = [&](Status, std::optional<std::string> text) {
    answers.push_back(text.value_or("none"));
  };
  const auto keepSuccess = [&](Status, bool success, std::optional<client::Error> error) {
    answers.push_back((success ? "yes " : "no ") + (error ? error->description : "no error"));
  };
  ASSERT_TRUE(session->fetchDisplayURL(keepText, finished()));
  ASSERT_TRUE(session->finish(keepText, finished()));
  ASSERT_TRUE(session->uploadFile("/var/log/a b%\xc3\xa9", keepSuccess, finished()));
  client::Array logData;
  ASSERT_TRUE(logData.append(client::Data{"log"}));
  ASSERT_TRUE(session->uploadLogData(logData, keepSuccess, finished()));
  client::Dictionary info;
  ASSERT_TRUE(info.set(::kCorvidSessionInfoClientType, 1));
  ASSERT_TRUE(
      session->sendSingleMessage(info, Session::none(), 4, 5, everyType(), keepText, finished()));
  ASSERT_TRUE(session->sendSingleMessage(client::Dictionary(), info, 6, 7, Session::none(),
                                         keepText, finished()));
  ASSERT_TRUE(awaitEnded(6));
  EXPECT_EQ(answers, (std::vector<std::string>{"URL not available", "none", "yes no error",
                                               "no no log data", "finished"}));
  EXPECT_EQ(outcomes.back(), CORVID_OUTCOME_UNANSWERED);
  const auto calls = recorded();
  EXPECT_EQ(calls[2].text, "file:///var/log/a%20b%25%C3%A9");
  EXPECT_EQ(calls[3].array, Array{Data{"log"}});
  EXPECT_EQ(calls[4].payload, everyTypeInside());
  EXPECT_EQ(calls[4].userInfo, std::nullopt);
  EXPECT_EQ(calls[5].userInfo, (Dictionary{{"ClientType", 1}}));
}

TEST_F(ClientCalls, CallsOfAllKindsKeepTheirOrder) {
  for (std::uint16_t i = 0; i < 400; ++i) {
    ASSERT_TRUE(i % 7 == 3 ? session->finish(nullptr, finished())
                           : session->sendMessage(i, 0, Session::none(), nullptr, finished()));
  }
  ASSERT_TRUE(awaitEnded(400));
  const auto calls = recorded();
  ASSERT_EQ(calls.size(), 400u);
  for (std::uint16_t i = 0; i < 400; ++i) {
    EXPECT_EQ(calls[i].name, i % 7 == 3 ? "finish" : "sendMessage");
    if (i % 7 != 3) {
      EXPECT_EQ(calls[i].category, i);
    }
  }
}

TEST_F(ClientCalls, DeliveriesReachTheAggregationBlockUpToTheSignalToShutDown) {
  session.reset();
  struct Delivered {
    bool hasMessage, hasPayload;
    double timestamp;
    int category, type;
    std::optional<std::int64_t> number;
  };
  std::vector<Delivered> delivered;
  Session::Options chosen = options();
  chosen.message = [&](client::DictionaryView message, double timestamp, std::uint16_t category,
                       std::uint16_t type, client::DictionaryView payload) {
    note([&] {
      delivered.push_back({static_cast<bool>(message), static_cast<bool>(payload), timestamp,
                           category, type, payload["number"].integer()});
    });
  };
  prepare = [](RecordingSession& s, const std::shared_ptr<Connection>& connection) {
    auto proxy = connection->remoteObjectProxyWithErrorHandler([](const std::string&) {});
    s.onMessage = [proxy](std::uint16_t category, ResultReply reply) {
      proxy->sendMessageToClient(Dictionary(), 2.5, category, 8, Dictionary{{"number", 42}});
      proxy->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt);
      reply(std::nullopt);
    };
  };
  session.emplace(std::move(chosen));
  ASSERT_TRUE(session->sendMessage(7, 0));
  ASSERT_TRUE(await([&] { return delivered.size() == 2; }));
  EXPECT_TRUE(delivered[0].hasMessage && delivered[0].hasPayload);
  EXPECT_EQ(delivered[0].timestamp, 2.5);
  EXPECT_EQ(delivered[0].category, 7);
  EXPECT_EQ(delivered[0].type, 8);
  EXPECT_EQ(delivered[0].number, 42);
  EXPECT_FALSE(delivered[1].hasMessage || delivered[1].hasPayload);
  EXPECT_EQ(delivered[1].timestamp + delivered[1].category + delivered[1].type, 0);
}

}  // namespace
}  // namespace corvid
