#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <thread>

#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;

const CorvidError failure = CorvidError::of(5, "server down");

class CorviddSessionFlushTest : public SessionTest {
 protected:
  // Backends that hold their flushes; the session starts with them.
  void startWithHeldFlushes(std::initializer_list<std::string_view> names) {
    for (const std::string_view name : names) {
      add(name).flushAnswer = std::nullopt;
      held.push_back(std::static_pointer_cast<FakeBackend>(table->at(std::string(name))));
    }
    configureAndStart();
  }
  void answer(std::size_t backend, std::optional<std::string> result,
              std::optional<CorvidError> error = std::nullopt) {
    held.at(backend)->heldFlushes.back()(std::move(result), std::move(error));
  }

  std::vector<std::shared_ptr<FakeBackend>> held;
};

TEST_F(CorviddSessionFlushTest, WithoutBackendsAnswersTheErrorAtOnce) {
  session->setSessionID(7);
  platform.log.clear();
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  const auto [result, error] = flushed.answer();
  EXPECT_EQ(result, std::nullopt);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, "com.halcyon.corvid.error");
  EXPECT_EQ(error->code, -1);
  EXPECT_EQ(error->localizedDescription, "No backends available to send message");
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("flushMessagesWithCompletion: Flushing messages for session 7",
                          "internalFlushMessagesWithCompletion: No backends available to send "
                          "message"));
}

TEST_F(CorviddSessionFlushTest, WithoutBackendsAndCallbackLogsOnly) {
  platform.log.clear();
  session->flushMessagesWithCompletion({});
  EXPECT_EQ(platform.log.lines().size(), 2u);
}

TEST_F(CorviddSessionFlushTest, OverAnEmptyTableNeverCallsBack) {
  configureAndStart();
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  EXPECT_EQ(flushed.answers(), 0u);
  EXPECT_TRUE(flushed.unanswered());
}

TEST_F(CorviddSessionFlushTest, AnswersAfterTheLastOfTwoBackendsWithItsResult) {
  startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost});
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  answer(1, "first to answer");
  EXPECT_EQ(flushed.answers(), 0u);
  answer(0, "last to answer");
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{"last to answer", std::nullopt}));
}

TEST_F(CorviddSessionFlushTest, AnswersAtTheFirstErrorAndOnlyLogsLaterAnswers) {
  startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost, kCorvidBackendMetrix});
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  answer(0, "one");
  answer(1, "two", failure);
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{"two", failure}));
  answer(2, "three");
  EXPECT_EQ(flushed.answers(), 1u);
  EXPECT_THAT(messageLog(),
              ElementsAre("[dashboard -> flushMessages] one", "[httpPost -> flushMessages] two",
                          "[metrix -> flushMessages] three"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("flushMessagesWithCompletion: Flushing messages for session 7",
                          "internalFlushMessagesWithCompletion: dashboard",
                          "internalFlushMessagesWithCompletion: httpPost",
                          "internalFlushMessagesWithCompletion: metrix"));
}

TEST_F(CorviddSessionFlushTest, ALaterErrorDoesNotAnswerAgain) {
  startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost});
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  answer(0, std::nullopt, failure);
  answer(1, std::nullopt, CorvidError::of(6, "too"));
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{std::nullopt, failure}));
}

TEST_F(CorviddSessionFlushTest, ABackendThatAnswersTwiceDoesNotReachTheClientTwice) {
  startWithHeldFlushes({kCorvidBackendHTTPPost});
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  answer(0, "once");
  answer(0, "twice");
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{"once", std::nullopt}));
}

TEST_F(CorviddSessionFlushTest, SynchronousAnswersAreAnswersToo) {
  add(kCorvidBackendDashboard).flushAnswer = FakeBackend::FlushAnswer{"one", std::nullopt};
  add(kCorvidBackendHTTPPost).flushAnswer = FakeBackend::FlushAnswer{"two", std::nullopt};
  configureAndStart();
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{"two", std::nullopt}));
  EXPECT_THAT(journal->entries(), ElementsAre("dashboard flush", "httpPost flush"));
}

TEST_F(CorviddSessionFlushTest, AnErrorDoesNotKeepLaterBackendsFromFlushing) {
  add(kCorvidBackendDashboard).flushAnswer = FakeBackend::FlushAnswer{std::nullopt, failure};
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  EXPECT_EQ(flushed.answer(), (RecordedFlush::Answer{std::nullopt, failure}));
  EXPECT_THAT(journal->entries(), ElementsAre("dashboard flush", "httpPost flush"));
}

TEST_F(CorviddSessionFlushTest, WithoutAnAnswerNothingIsWrittenToTheMessageLog) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  session->flushMessagesWithCompletion({});
  EXPECT_THAT(messageLog(), ElementsAre());
}

TEST_F(CorviddSessionFlushTest, AnEmptyAnswerIsWrittenToTheMessageLogToo) {
  add(kCorvidBackendHTTPPost).flushAnswer = FakeBackend::FlushAnswer{"", std::nullopt};
  configureAndStart();
  session->flushMessagesWithCompletion({});
  EXPECT_THAT(messageLog(), ElementsAre("[httpPost -> flushMessages] "));
}

TEST_F(CorviddSessionFlushTest, LogsTheBackendsNameAndFilesUnderTheTableKey) {
  addAs("key", kCorvidBackendHTTPPost).flushAnswer = FakeBackend::FlushAnswer{"t", std::nullopt};
  configureAndStart();
  session->flushMessagesWithCompletion({});
  EXPECT_TRUE(platform.log.has(LogLevel::debug, "internalFlushMessagesWithCompletion: httpPost"));
  EXPECT_THAT(messageLog(), ElementsAre("[key -> flushMessages] t"));
}

TEST_F(CorviddSessionFlushTest, CompletionsThatBackendsDropLeaveTheClientUnanswered) {
  startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost});
  RecordedFlush flushed;
  session->flushMessagesWithCompletion(flushed.reply());
  answer(0, "one");
  for (const auto& backend : held) backend->heldFlushes.clear();
  EXPECT_EQ(flushed.answers(), 0u);
  EXPECT_TRUE(flushed.unanswered());
}

TEST_F(CorviddSessionFlushTest, TwoFlushesCountTheirBackendsApart) {
  startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost});
  RecordedFlush first;
  RecordedFlush second;
  session->flushMessagesWithCompletion(first.reply());
  session->flushMessagesWithCompletion(second.reply());
  answer(0, "second flush");
  answer(1, "second flush");
  EXPECT_EQ(first.answers(), 0u);
  EXPECT_EQ(second.answers(), 1u);
}

// Whoever answers meanwhile, for whatever session, waits until the caller's completion has run.
TEST_F(CorviddSessionFlushTest, TheCallersCompletionKeepsTheAnswersOfOtherSessionsWaiting) {
  startWithHeldFlushes({kCorvidBackendHTTPPost});
  const auto another = std::exchange(session, newSession());
  startWithHeldFlushes({kCorvidBackendHTTPPost});
  RecordedFlush otherFlush;
  another->flushMessagesWithCompletion(otherFlush.reply());
  std::future<void> other;
  session->flushMessagesWithCompletion(FlushReply([&](auto, auto) {
    other = std::async(std::launch::async, [&] { answer(0, "other"); });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(otherFlush.answers(), 0u);
  }));
  answer(1, "own");
  other.wait();
  EXPECT_EQ(otherFlush.result(), "other");
}

TEST_F(CorviddSessionFlushTest, ACallbackMayFlushAgain) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  RecordedFlush again;
  session->flushMessagesWithCompletion(
      FlushReply([&](auto, auto) { session->flushMessagesWithCompletion(again.reply()); }));
  EXPECT_EQ(again.answers(), 1u);
}

// Threads that answer at once: each flush of each round must reach its caller exactly once, and
// callers run one at a time, whichever session they belong to.
TEST_F(CorviddSessionFlushTest, AnswersFromSeveralThreadsReachEachCallerOnceAndOneAtATime) {
  constexpr int rounds = 50;
  constexpr std::size_t sessions = 2;
  constexpr std::size_t backends = 3;
  std::vector<std::shared_ptr<CorviddSession>> flushing;
  std::vector<std::shared_ptr<FakeBackend>> answering;
  for (std::size_t i = 0; i < sessions; ++i) {
    for (const std::string_view name :
         {kCorvidBackendDashboard, kCorvidBackendHTTPPost, kCorvidBackendMetrix}) {
      add(name).flushAnswer = std::nullopt;
      answering.push_back(std::static_pointer_cast<FakeBackend>(table->at(std::string(name))));
    }
    configureAndStart();
    flushing.push_back(std::move(session));
    session = newSession();
  }

  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::atomic<int>> calls(sessions);
    for (std::size_t i = 0; i < sessions; ++i) {
      flushing[i]->flushMessagesWithCompletion(FlushReply([&, i](auto, auto) {
        if (inside.fetch_add(1) > 0) ++overlaps;
        ++calls[i];
        std::this_thread::yield();
        inside.fetch_sub(1);
      }));
    }
    std::latch start(static_cast<std::ptrdiff_t>(answering.size()));
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < answering.size(); ++i) {
      threads.emplace_back([&, completion = std::move(answering[i]->heldFlushes.back()),
                            fails = round % 2 == 1 && i % backends == 1] {
        start.arrive_and_wait();
        completion(std::nullopt, fails ? std::optional(failure) : std::nullopt);
      });
      answering[i]->heldFlushes.clear();
    }
    for (std::thread& thread : threads) thread.join();
    for (const auto& count : calls) ASSERT_EQ(count, 1);
  }
  EXPECT_EQ(overlaps, 0);
}

TEST_F(CorviddSessionFlushTest, TheLastAnswersMayRaceWithTheEndOfTheSession) {
  for (int round = 0; round < 50; ++round) {
    held.clear();
    startWithHeldFlushes({kCorvidBackendDashboard, kCorvidBackendHTTPPost});
    RecordedFlush flushed;
    session->flushMessagesWithCompletion(flushed.reply());
    std::vector<FlushCompletion> completions;
    for (const auto& backend : held) {
      completions.push_back(std::move(backend->heldFlushes.back()));
      backend->heldFlushes.clear();
    }
    std::latch start(2);
    std::thread answers([&] {
      start.arrive_and_wait();
      for (FlushCompletion& completion : completions) completion(std::nullopt, std::nullopt);
    });
    start.arrive_and_wait();
    session.reset();
    answers.join();
    EXPECT_EQ(flushed.answers(), 1u);
    session = newSession();
  }
}

}  // namespace
}  // namespace corvid
