// Answers late, from elsewhere, not at all, or by an exception.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "protocol/Limits.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

class Replies : public ServiceFixture {
 protected:
  // The session keeps the replies of its events for the test.
  void keepReplies() {
    delegate->onSession = [this](RecordingSession& session, auto&) {
      session.onMessage = [this](std::uint16_t, ResultReply reply) {
        notice.change([&] { replies.push_back(std::move(reply)); });
      };
    };
  }
  ResultReply takeReply(std::size_t index) {
    ResultReply reply;
    EXPECT_TRUE(notice.await([&] { return replies.size() > index; }));
    notice.change([&] { reply = std::move(replies[index]); });
    return reply;
  }

  Notice notice;
  std::vector<ResultReply> replies;
};

kj::Promise<std::string> begin(WireClient& client, std::uint16_t category) {
  auto request = client.session.sendMessagesRequest();
  auto message = request.initMessages(1)[0];
  message.setReplyWanted(true);
  message.initEvent().setCategory(category);
  return request.send().then([](auto&& response) -> std::string {
    const auto result = response.getResults()[0];
    return result.isText() ? result.getText() : "not answered";
  });
}

TEST_F(Replies, MayComeFromAnyThread) {
  keepReplies();
  start();
  WireClient client(path);
  auto first = begin(client, 1);
  auto second = begin(client, 2);
  std::thread other([&] {
    takeReply(1)("second");
    takeReply(0)("first");
  });
  EXPECT_EQ(second.wait(client.scope), "second");
  EXPECT_EQ(first.wait(client.scope), "first");
  other.join();
}

TEST_F(Replies, OfOneCallAreCollectedFromSeveralThreads) {
  keepReplies();
  start();
  WireClient client(path);
  auto request = client.session.sendMessagesRequest();
  auto messages = request.initMessages(8);
  for (auto message : messages) {
    message.setReplyWanted(true);
    message.initEvent();
  }
  auto promise = request.send();
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      if (i != 5)
        takeReply(i)(std::to_string(i));
      else
        takeReply(i) = ResultReply();
    });
  auto response = promise.wait(client.scope);
  for (auto& thread : threads) thread.join();
  for (capnp::uint i = 0; i < 8; ++i) {
    if (i == 5)
      EXPECT_TRUE(response.getResults()[i].isUnanswered());
    else
      EXPECT_EQ(std::string(response.getResults()[i].getText()), std::to_string(i));
  }
}

TEST_F(Replies, ALateAnswerDoesNotHoldUpLaterCalls) {
  delegate->onSession = [this](RecordingSession& session, auto&) {
    session.onFetchDisplayURL = [this](Reply<std::string> reply) {
      auto shared = std::make_shared<Reply<std::string>>(std::move(reply));
      notice.change([&] {
        replies.push_back(ResultReply([shared](std::optional<std::string>) { (*shared)("url"); }));
      });
    };
  };
  start();
  WireClient client(path);
  auto request = client.session.fetchDisplayURLRequest();
  request.setReplyWanted(true);
  auto url = request.send();
  EXPECT_EQ(sendEvent(client, 4, 0), "sent 4");
  takeReply(0)(std::nullopt);
  EXPECT_STREQ(url.wait(client.scope).getUrl().getText().cStr(), "url");
}

TEST_F(Replies, DroppedUnansweredTellTheClientSo) {
  keepReplies();
  start();
  WireClient client(path);
  auto promise = begin(client, 1);
  std::thread other([&] { takeReply(0); });
  EXPECT_EQ(promise.wait(client.scope), "not answered");
  other.join();

  auto request = client.session.sendSingleMessageRequest();
  request.setReplyWanted(true);
  EXPECT_TRUE(request.send().wait(client.scope).getResult().isUnanswered());
}

TEST_F(Replies, AfterTheConnectionIsGoneReachNobody) {
  keepReplies();
  start();
  {
    WireClient client(path);
    auto promise = begin(client, 1);
    auto other = begin(client, 2);
    client.scope.poll();
    ASSERT_TRUE(notice.await([&] { return replies.size() == 2; }));
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  takeReply(0)("too late");
  takeReply(1) = ResultReply();
  WireClient next(path);
  auto promise = begin(next, 3);
  next.scope.poll();
  takeReply(2)("in time");
  EXPECT_EQ(promise.wait(next.scope), "in time");
}

// A client takes no message that is larger.
TEST_F(Replies, ATextThatIsTooLargeForAMessageIsLeftOut) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t category, ResultReply reply) {
      reply(std::string(category == 0 ? limits::answerTextBytes : std::size_t{category}, 't'));
    };
  };
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 0, 0).size(), limits::answerTextBytes);
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());

  auto request = client.session.sendMessagesRequest();
  auto messages = request.initMessages(3);
  for (capnp::uint i = 0; i < 3; ++i) {
    messages[i].setReplyWanted(true);
    messages[i].initEvent().setCategory(i == 1 ? 0 : 5);
  }
  auto response = request.send().wait(client.scope);
  EXPECT_STREQ(response.getResults()[0].getText().cStr(), "ttttt");
  EXPECT_TRUE(response.getResults()[1].isNone());
  EXPECT_STREQ(response.getResults()[2].getText().cStr(), "ttttt");
  EXPECT_EQ(log.texts(LogLevel::warning),
            std::vector<std::string>{"SessionServer: A text of 16760832 bytes for " +
                                     delegate->at(0).connection->description() +
                                     " is too large and is left out"});
}

TEST_F(Replies, AnExceptionEndsItsCallOnlyWithOneErrorLine) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t category, ResultReply reply) {
      if (category == 1) throw std::invalid_argument("no version");
      if (category == 2) throw 42;
      reply("fine");
      if (category == 3) throw std::runtime_error("after the answer");
    };
  };
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 0), "unanswered");
  const std::string name = delegate->at(0).connection->description();
  EXPECT_EQ(log.texts(LogLevel::error),
            std::vector{"SessionServer: Exception in sendMessage for " + name + ": no version"});
  EXPECT_EQ(sendEvent(client, 2, 0), "unanswered");
  EXPECT_EQ(log.texts(LogLevel::error).back(),
            "SessionServer: Unknown exception in sendMessage for " + name);
  EXPECT_EQ(sendEvent(client, 3, 0), "fine");
  EXPECT_EQ(sendEvent(client, 4, 0), "fine");
  EXPECT_EQ(log.texts(LogLevel::error).size(), 3u);
}

TEST_F(Replies, AnExceptionInOneOfSeveralEventsLeavesTheOthers) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.onMessage = [](std::uint16_t category, ResultReply reply) {
      if (category == 1) throw std::invalid_argument("no version");
      reply("fine");
    };
  };
  start();
  WireClient client(path);
  auto request = client.session.sendMessagesRequest();
  auto messages = request.initMessages(3);
  for (capnp::uint i = 0; i < 3; ++i) {
    messages[i].setReplyWanted(true);
    messages[i].initEvent().setCategory(static_cast<std::uint16_t>(i));
  }
  auto response = request.send().wait(client.scope);
  EXPECT_TRUE(response.getResults()[0].isText());
  EXPECT_TRUE(response.getResults()[1].isUnanswered());
  EXPECT_TRUE(response.getResults()[2].isText());
}

TEST_F(Replies, ABlockedCallHoldsUpNobodyElse) {
  delegate->onSession = [this](RecordingSession& session, auto&) {
    session.onMessage = [this](std::uint16_t category, ResultReply reply) {
      if (category == 1) {
        bool released = false;
        released = notice.await([&] { return !replies.empty(); });
        reply(released ? "released" : "gave up");
      } else {
        reply("not blocked");
      }
    };
  };
  start();
  WireClient blocked(path);
  auto promise = begin(blocked, 1);
  blocked.scope.poll();
  ASSERT_TRUE(delegate->at(0).session->awaitCalls(1));
  std::thread other([&] {
    WireClient free(path);
    EXPECT_EQ(sendEvent(free, 2, 0), "not blocked");
  });
  other.join();
  notice.change([&] { replies.emplace_back(); });
  EXPECT_EQ(promise.wait(blocked.scope), "released");
}

TEST_F(Replies, WhatAClientSentBeforeItLeftStillRuns) {
  start();
  {
    WireClient client(path);
    std::vector<kj::Promise<std::string>> promises;
    for (std::uint16_t i = 0; i < 50; ++i) promises.push_back(begin(client, i));
    client.scope.poll();
    client.stream.flush();
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_EQ(delegate->at(0).session->calls().size(), 50u);
}

TEST_F(Replies, AClientThatVanishesInMidCallIsInvalidatedOnceAfterIt) {
  delegate->keepSessions = false;
  std::atomic<bool> inCall{false};
  std::atomic<bool> destroyedInCall{false};
  std::atomic<int> destroyed{0};
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onMessage = [&](std::uint16_t, ResultReply reply) {
      notice.change([&] { inCall = true; });
      notice.await([&] { return !replies.empty(); });
      inCall = false;
      reply("nobody hears this");
    };
    session.onDestruction = [&] {
      destroyedInCall = inCall.load();
      notice.change([&] { ++destroyed; });
    };
  };
  start();
  {
    WireClient client(path);
    auto promise = begin(client, 1);
    client.scope.poll();
    ASSERT_TRUE(notice.await([&] { return inCall.load(); }));
  }
  notice.change([&] { replies.emplace_back(); });
  ASSERT_TRUE(notice.await([&] { return destroyed == 1; }));
  EXPECT_TRUE(delegate->at(0).invalidated);
  EXPECT_FALSE(destroyedInCall);
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
  EXPECT_TRUE(log.texts(LogLevel::error).empty());
}

TEST_F(Replies, TheSessionsDestructorMayBlockOnTheConnectionsThread) {
  delegate->keepSessions = false;
  bool flushed = false;
  bool destroyed = false;
  std::thread flusher;
  delegate->onSession = [&](RecordingSession& session, auto&) {
    session.onDestruction = [&] {
      flusher = std::thread([&] { notice.change([&] { flushed = true; }); });
      notice.await([&] { return flushed; });
      notice.change([&] { destroyed = true; });
    };
  };
  start();
  { WireClient client(path); }
  ASSERT_TRUE(notice.await([&] { return destroyed; }));
  flusher.join();
}

}  // namespace
}  // namespace corvid
