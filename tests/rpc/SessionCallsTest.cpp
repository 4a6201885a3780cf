// Every operation from the wire to the session and back.
#include <gtest/gtest.h>

#include <string>

#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using SessionCalls = ServiceFixture;

capnp::uint count(std::size_t size) { return static_cast<capnp::uint>(size); }

const Dictionary sessionInfo{{"ClientType", 3}, {"SessionID", 4294967295}};
const Dictionary userInfo{{"_clientName", "Client"}, {"_serviceName", "Service"}};

TEST_F(SessionCalls, SetSessionInfoCarriesItsArguments) {
  start();
  WireClient client(path);
  auto request = client.session.setSessionInfoRequest();
  fill(request.initSessionInfo(count(sessionInfo.size())), sessionInfo);
  fill(request.initUserInfo(count(userInfo.size())), userInfo);
  wire::encode(Array{"framework"}, request.initFrameworksToCheck(1));
  request.setHasAggregationBlock(true);
  request.send().wait(client.scope);
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].dictionary, sessionInfo);
  EXPECT_EQ(calls[0].userInfo, userInfo);
  EXPECT_EQ(calls[0].array, Array{"framework"});
  EXPECT_TRUE(calls[0].flag);
}

TEST_F(SessionCalls, AnAbsentDictionaryStaysApartFromAnEmptyOne) {
  start();
  WireClient client(path);
  auto absent = client.session.setSessionInfoRequest();
  absent.send().wait(client.scope);
  auto empty = client.session.setSessionInfoRequest();
  empty.initUserInfo(0);
  empty.send().wait(client.scope);
  EXPECT_EQ(sendEvent(client, 1, 2), "sent 1");
  EXPECT_EQ(sendEvent(client, 1, 2, Dictionary()), "sent 1");
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].userInfo, std::nullopt);
  EXPECT_EQ(calls[1].userInfo, Dictionary());
  EXPECT_EQ(calls[2].payload, std::nullopt);
  EXPECT_EQ(calls[3].payload, Dictionary());
}

TEST_F(SessionCalls, StatesComeBackAsAnArrayOrAsNone) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.states = Array{"httpPost", "dashboard"};
  };
  start();
  WireClient client(path);
  auto request = client.session.startConfigRequest();
  request.setReplyWanted(true);
  auto response = request.send().wait(client.scope);
  EXPECT_TRUE(response.getAnswered());
  EXPECT_EQ(wire::ValueDecoder().array(response.getStates()), (Array{"httpPost", "dashboard"}));

  delegate->at(0).session->states = std::nullopt;
  auto fetch = client.session.fetchStatesRequest();
  fetch.setReplyWanted(true);
  fill(fetch.initUserInfo(count(userInfo.size())), userInfo);
  auto fetched = fetch.send().wait(client.scope);
  EXPECT_TRUE(fetched.getAnswered());
  EXPECT_FALSE(fetched.hasStates());
  EXPECT_EQ(delegate->at(0).session->calls()[1].userInfo, userInfo);
}

TEST_F(SessionCalls, AnEmptyArrayOfStatesIsPresent) {
  delegate->onSession = [](RecordingSession& session, auto&) { session.states = Array(); };
  start();
  WireClient client(path);
  auto request = client.session.startConfigRequest();
  request.setReplyWanted(true);
  EXPECT_TRUE(request.send().wait(client.scope).hasStates());
}

TEST_F(SessionCalls, FlushAnswersWithATextAnErrorOrBoth) {
  int flushes = 0;
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onFlush = [&](FlushReply reply) {
      ++flushes;
      reply(flushes > 1 ? std::optional<std::string>("flushed") : std::nullopt,
            flushes != 2 ? std::optional(CorvidError::of(-1, "No backends")) : std::nullopt);
    };
  };
  start();
  WireClient client(path);
  const auto flush = [&] {
    auto request = client.session.flushRequest();
    request.setReplyWanted(true);
    return request.send().wait(client.scope);
  };
  auto first = flush();
  EXPECT_TRUE(first.getResult().isNone());
  ASSERT_TRUE(first.hasError());
  EXPECT_STREQ(first.getError().getDomain().cStr(), "com.halcyon.corvid.error");
  EXPECT_EQ(first.getError().getCode(), -1);
  EXPECT_STREQ(first.getError().getDescription().cStr(), "No backends");
  auto second = flush();
  EXPECT_STREQ(second.getResult().getText().cStr(), "flushed");
  EXPECT_FALSE(second.hasError());
  auto third = flush();
  EXPECT_TRUE(third.getResult().isText());
  EXPECT_TRUE(third.hasError());
}

TEST_F(SessionCalls, TheOtherOperationsCarryArgumentsAndAnswers) {
  start();
  WireClient client(path);
  auto url = client.session.fetchDisplayURLRequest();
  url.setReplyWanted(true);
  auto urlAnswer = url.send().wait(client.scope);
  EXPECT_STREQ(urlAnswer.getUrl().getText().cStr(), "URL not available");

  auto finish = client.session.finishRequest();
  finish.setReplyWanted(true);
  EXPECT_TRUE(finish.send().wait(client.scope).getResult().isNone());

  auto upload = client.session.uploadFileRequest();
  upload.setReplyWanted(true);
  upload.setFileURL("file:///var/log/a%20b");
  upload.setExtensionToken(capnp::Data::Reader(reinterpret_cast<const kj::byte*>("t\xff"), 2));
  auto uploaded = upload.send().wait(client.scope);
  EXPECT_TRUE(uploaded.getAnswered());
  EXPECT_TRUE(uploaded.getSuccess());

  auto logData = client.session.uploadLogDataRequest();
  logData.setReplyWanted(true);
  wire::encode(Array{Data{"log"}}, logData.initLogData(1));
  auto logged = logData.send().wait(client.scope);
  EXPECT_TRUE(logged.getAnswered());
  EXPECT_FALSE(logged.getSuccess());
  EXPECT_EQ(logged.getError().getCode(), 7);

  auto single = client.session.sendSingleMessageRequest();
  single.setReplyWanted(true);
  fill(single.initSessionInfo(count(sessionInfo.size())), sessionInfo);
  fill(single.initUserInfo(count(userInfo.size())), userInfo);
  single.setCategory(65535);
  single.setType(65534);
  fill(single.initPayload(1), Dictionary{{"key", "value"}});
  auto sent = single.send().wait(client.scope);
  EXPECT_STREQ(sent.getResult().getText().cStr(), "finished");

  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[2].text, "file:///var/log/a%20b");
  EXPECT_EQ(calls[2].token, "t\xff");
  EXPECT_EQ(calls[3].array, Array{Data{"log"}});
  EXPECT_EQ(calls[4].dictionary, sessionInfo);
  EXPECT_EQ(calls[4].userInfo, userInfo);
  EXPECT_EQ(calls[4].category, 65535);
  EXPECT_EQ(calls[4].type, 65534);
  EXPECT_EQ(calls[4].payload, (Dictionary{{"key", "value"}}));
}

TEST_F(SessionCalls, EventsThatTravelTogetherKeepTheirOrderAndTheirOwnResults) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t category, ResultReply reply) {
      if (category % 3 == 0) reply("text " + std::to_string(category));
      if (category % 3 == 1) reply(std::nullopt);
    };
  };
  start();
  WireClient client(path);
  auto request = client.session.sendMessagesRequest();
  auto messages = request.initMessages(count(limits::messagesPerCall));
  for (capnp::uint i = 0; i < messages.size(); ++i) {
    messages[i].setReplyWanted(i != 6);
    if (i == 9) {
      fill(messages[i].initDictionary(1), Dictionary{{"Category", 9}});
      continue;
    }
    messages[i].initEvent().setCategory(static_cast<std::uint16_t>(i));
  }
  auto response = request.send().wait(client.scope);
  const auto results = response.getResults();
  ASSERT_EQ(results.size(), limits::messagesPerCall);
  EXPECT_STREQ(results[3].getText().cStr(), "text 3");
  EXPECT_TRUE(results[4].isNone());
  EXPECT_TRUE(results[5].isUnanswered());
  EXPECT_TRUE(results[6].isUnanswered()) << "no reply was wanted";
  EXPECT_STREQ(results[9].getText().cStr(), "text 0") << "the dictionary form";
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), limits::messagesPerCall);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].replyWanted, i != 6);
    if (i == 9)
      EXPECT_EQ(calls[i].dictionary, (Dictionary{{"Category", 9}}));
    else
      EXPECT_EQ(calls[i].category, i);
  }
}

TEST_F(SessionCalls, ACallWithoutACallbackCompletesWhenTheSessionHasFinishedWithIt) {
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 5, 6, std::nullopt, false), "unanswered");
  auto config = client.session.startConfigRequest();
  EXPECT_FALSE(config.send().wait(client.scope).getAnswered());
  auto flush = client.session.flushRequest();
  auto flushed = flush.send().wait(client.scope);
  EXPECT_TRUE(flushed.getResult().isUnanswered());
  EXPECT_FALSE(flushed.hasError());
  std::vector<bool> wanted;
  for (const auto& call : delegate->at(0).session->calls()) wanted.push_back(call.replyWanted);
  EXPECT_EQ(wanted, std::vector<bool>(3, false));
}

TEST_F(SessionCalls, TheCallsOfAClientRunOnOneThreadOfItsOwn) {
  start();
  WireClient client(path);
  for (std::uint16_t i = 0; i < 5; ++i) sendEvent(client, i, 0);
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 5u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.thread, calls[0].thread);
    EXPECT_NE(call.thread, std::this_thread::get_id());
  }
}

}  // namespace
}  // namespace corvid
