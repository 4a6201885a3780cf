#include <gtest/gtest.h>

#include <optional>

#include "tests/gateway/fakes/FakeLog.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {
namespace {

class Answer {
 public:
  LogPublisher::Completion completion() {
    return [this](Published answer) { _notice.change([&] { _answer = answer; }); };
  }
  std::optional<Published> await() {
    _notice.await([&] { return _answer.has_value(); });
    return _answer;
  }

 private:
  Notice _notice;
  std::optional<Published> _answer;
};

Published answerOf(FakeLog& log, LogMessage message) {
  Answer answer;
  log.publish(std::move(message), answer.completion());
  return answer.await().value_or(Published::unanswered);
}

TEST(FakeLogTest, StoresEachIDOnceAndInOrder) {
  FakeLog log;
  EXPECT_EQ(answerOf(log, {.stream = "events", .id = "b", .headers = {}, .body = "1"}),
            Published::stored);
  EXPECT_EQ(answerOf(log, {.stream = "events", .id = "a", .headers = {}, .body = "2"}),
            Published::stored);
  EXPECT_EQ(answerOf(log, {.stream = "events", .id = "b", .headers = {}, .body = "3"}),
            Published::stored);
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[0].body, "1");
  EXPECT_EQ(log.messages()[1].body, "2");
  EXPECT_EQ(log.published(), 3u);
}

TEST(FakeLogTest, RefusesAndLeavesUnansweredAsItIsTold) {
  FakeLog log(FakeLog::Mode::refuses);
  EXPECT_EQ(answerOf(log, {}), Published::refused);
  log.setMode(FakeLog::Mode::failsToAnswer);
  EXPECT_EQ(answerOf(log, {}), Published::unanswered);
  EXPECT_TRUE(log.messages().empty());
}

TEST(FakeLogTest, AnswersWhatItWasSilentAboutLater) {
  FakeLog log(FakeLog::Mode::silent);
  Answer answer;
  log.publish({}, answer.completion());
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(answer.await(), Published::stored);
}

TEST(FakeLogTest, AnswersWhatItWasSilentAboutWhenItGoes) {
  Answer answer;
  {
    FakeLog log(FakeLog::Mode::silent);
    log.publish({}, answer.completion());
  }
  EXPECT_EQ(answer.await(), Published::unanswered);
}

TEST(FakeLogTest, SaysThatItIsReadyAsItIsTold) {
  FakeLog log;
  EXPECT_TRUE(log.isReady());
  log.setReady(false);
  EXPECT_FALSE(log.isReady());
}

}  // namespace
}  // namespace corvid::fleet
