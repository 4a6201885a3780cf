// Pushing out the batch, and who hears what.
#include "platform/data/JSON.h"
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct FlushTest : PostBackendFixture {
  struct Answer {
    std::optional<std::string> text;
    std::optional<CorvidError> error;
  };

  FlushTest() { sessionInfo.set("BatchEvent", true); }

  std::optional<std::string> flush(HTTPSPostBackend& backend) {
    return backend.flushMessagesWithCompletion(
        [this](std::optional<std::string> text, std::optional<CorvidError> error) {
          answers.push_back({std::move(text), std::move(error)});
        });
  }
  void expectAnswered(std::optional<std::string> text, std::optional<CorvidError> error) {
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].text, text);
    EXPECT_EQ(answers[0].error, error);
    answers.clear();
  }

  std::vector<Answer> answers;
};

TEST_F(FlushTest, PostsTheWholeBatchToTheBatchAddress) {
  const auto backend = makeFor(openEntry());
  for (int i = 1; i <= 3; ++i) send(*backend, {{"x", i}});
  const auto text = flush(*backend);
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(requests()[0].url, batchURL);
  EXPECT_EQ(posted("x"), (std::vector<std::string>{"1", "2", "3"}));
  const Result<Value> message = parseJSON(messageOf(requests()[0]));
  EXPECT_EQ(text, indentedJSON(*writeJSON(*message.value().dictionary())));
  EXPECT_TRUE(
      platform.log.has(LogLevel::debug, "HTTPSPostBackend(flushMessagesWithCompletion): called"));
  EXPECT_TRUE(answers.empty()) << "the exchange is under way";
  platform.http->completeNext(FakeHTTPClient::response(200));
  expectAnswered(text, std::nullopt);
}

TEST_F(FlushTest, ASecondFlushFindsNothing) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(flush(*backend), std::nullopt);
  expectAnswered(std::nullopt, CorvidError::of(-1, "Nothing to flush"));
  EXPECT_EQ(requests().size(), 1u);
}

TEST_F(FlushTest, EmptiesTheCounts) {
  const auto backend = makeFor(openEntryWith("event_threshold", 0));
  for (int i = 1; i <= 3; ++i) {
    send(*backend, {{"x", i}});
    backend->flushMessagesWithCompletion(nullptr);
  }
  EXPECT_EQ(posted("x"), (std::vector<std::string>{"1", "2", "3"})) << "no event reached a limit";
}

TEST_F(FlushTest, WithoutABatchThereIsNothingToFlush) {
  const auto backend = makeFor(openEntry());
  EXPECT_EQ(flush(*backend), std::nullopt);
  expectAnswered(std::nullopt, CorvidError::of(-1, "Nothing to flush"));
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
}

TEST_F(FlushTest, OutsideSendingTheBatchIsLost) {
  for (const BackendState state :
       {BackendState::waiting, BackendState::held, BackendState::disabled}) {
    const auto backend = makeFor(openEntry());
    send(*backend, {});
    backend->setState(state);
    EXPECT_EQ(flush(*backend), std::nullopt);
    expectAnswered(std::nullopt, CorvidError::of(-1, "Nothing to flush"));
    backend->setState(BackendState::sending);
    backend->flushMessagesWithCompletion(nullptr);
    EXPECT_TRUE(requests().empty());
  }
}

TEST_F(FlushTest, OutsideSendingTheCountsAreKept) {
  const auto backend = makeFor(openEntryWith("event_threshold", 0));
  send(*backend, {{"x", 1}});
  backend->setState(BackendState::held);
  backend->flushMessagesWithCompletion(nullptr);
  backend->setState(BackendState::sending);
  send(*backend, {{"x", 2}});
  ASSERT_EQ(requests().size(), 1u) << "the counter was at its limit";
  EXPECT_TRUE(eventsOf(requests()[0]).empty());
}

TEST_F(FlushTest, WithoutRequiredUserInfoTheBatchIsKept) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"x", 1}});
  backend->setUserInfoDict(nullptr);
  EXPECT_EQ(flush(*backend), std::nullopt);
  expectAnswered(std::nullopt, CorvidError::of(-1, "Can not flush: userInfo is required"));
  EXPECT_EQ(backend->flushMessagesWithCompletion(nullptr), std::nullopt);
  EXPECT_TRUE(requests().empty());
  backend->setUserInfoDict(shared(*userInfo));
  flush(*backend);
  EXPECT_EQ(posted("x"), std::vector<std::string>{"1"});
}

TEST_F(FlushTest, WithoutUserInfoThatIsNotRequiredTheBatchLeavesAsItIs) {
  sessionInfo.set("RequireUserInfo", false);
  userInfo.reset();
  const auto backend = makeFor(openEntry());
  send(*backend, {{"x", 1}});
  flush(*backend);
  EXPECT_EQ(posted("x"), std::vector<std::string>{"1"});
  EXPECT_EQ(posted("_clientName"), std::vector<std::string>{"missing"});
}

TEST_F(FlushTest, TheUserInfoOfNowIsAddedToEveryRecord) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"x", 1}});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "renamed"}, {"account", "abc"}}));
  send(*backend, {{"x", 2}});
  flush(*backend);
  EXPECT_EQ(posted("_clientName"), (std::vector<std::string>{"renamed", "renamed"}));
  EXPECT_EQ(posted("account"), (std::vector<std::string>{"abc", "abc"}));
  EXPECT_EQ(posted("_serviceName"), (std::vector<std::string>{"radio", "missing"}))
      << "what a record had before stays";
}

TEST_F(FlushTest, AddedUserInfoIsFilteredWithoutMethodAndStatus) {
  userInfo->set("account", "abc");
  userInfo->set("phone", "123");
  const auto backend = makeFor(openEntryWith(
      "filters", Array{Dictionary{{"key", "account"}, {"action", "sha256"}},
                       Dictionary{{"key", "phone"}, {"action", "remove"}, {"method", 3}}}));
  send(*backend, {{"x", 1}});
  flush(*backend);
  EXPECT_EQ(
      posted("account"),
      std::vector<std::string>{"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"})
      << "digested once, not the digest's digest";
  EXPECT_EQ(posted("phone"), std::vector<std::string>{"123"})
      << "the copy has no method, so its filter does not fit";
}

TEST_F(FlushTest, TheExchangesErrorReachesTheCompletionWithTheText) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  const auto text = flush(*backend);
  platform.http->completeNext(FakeHTTPClient::error(28, "timed out"));
  expectAnswered(text, CorvidError::of(28, "timed out"));
  EXPECT_TRUE(platform.log.has(LogLevel::error,
                               "HTTPSPostBackend(postJsonMessage): post error: timed out"));
}

TEST_F(FlushTest, AServerErrorReachesTheCompletionAndDisables) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  const auto text = flush(*backend);
  platform.http->completeNext(FakeHTTPClient::response(503));
  expectAnswered(text, CorvidError::of(503, "backend httpPost disabled by server 503 return code"));
  EXPECT_EQ(backend->state(), BackendState::disabled);
}

TEST_F(FlushTest, OtherStatusesAreNoError) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  const auto text = flush(*backend);
  platform.http->completeNext(FakeHTTPClient::response(404));
  expectAnswered(text, std::nullopt);
}

TEST_F(FlushTest, ACompletionIsHeardAfterTheBackendIsGone) {
  auto backend = makeFor(openEntry());
  send(*backend, {});
  const auto text = flush(*backend);
  backend.reset();
  platform.http->completeNext(FakeHTTPClient::response(500));
  expectAnswered(text, CorvidError::of(500, "backend httpPost disabled by server 500 return code"));
}

TEST_F(FlushTest, WithoutLoggingTheCompletionGetsNoText) {
  const auto backend = makeFor(openEntryWith("override_dnu", 1));
  send(*backend, {});
  EXPECT_EQ(flush(*backend), std::nullopt);
  platform.http->completeNext(FakeHTTPClient::response(200));
  expectAnswered(std::nullopt, std::nullopt);
}

TEST_F(FlushTest, WithoutAnAddressTheBatchIsLostAndTheErrorSaysWhy) {
  const auto backend = makeFor(openEntry());
  backend->setPostURL(std::nullopt);
  send(*backend, {});
  const auto text = flush(*backend);
  expectAnswered(text, CorvidError::of(-1, "postURL is nil"));
  EXPECT_TRUE(requests().empty());
}

TEST_F(FlushTest, ABatchThatCannotBeWrittenIsNothingToFlush) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"bad", "\xFF"}});
  EXPECT_EQ(flush(*backend), std::nullopt);
  expectAnswered(std::nullopt, CorvidError::of(-1, "Nothing to flush"));
  EXPECT_TRUE(requests().empty());
}

}  // namespace
}  // namespace corvid
