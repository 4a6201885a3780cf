// Flow control, and other threads at work while events pass.
#include <malloc.h>

#include <future>
#include <random>
#include <thread>

#include "tests/backends/https/PostBackendFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

struct PostThreadsTest : PostBackendFixture {
  // That no compressor makes much shorter.
  static std::string randomText(std::size_t size) {
    std::mt19937 engine(1);
    std::string text;
    while (text.size() < size) text += static_cast<char>('0' + engine() % 75);
    return text;
  }
  static std::size_t bytesInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  }
};

TEST_F(PostThreadsTest, ExchangesUnderWayAreNoReasonToWaitHoweverMany) {
  const auto backend = makeFor(openEntry());
  for (int i = 0; i < 1000; ++i) send(*backend, {{"x", i}}, 1);
  EXPECT_EQ(platform.http->exchangesUnderWay(), 1000u);
}

TEST_F(PostThreadsTest, PastItsBytesASendWaitsForAnExchangeToEnd) {
  const auto backend = makeFor(openEntry());
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 100'000);
  backend->setExchangeGate(gate);
  std::size_t sent = 0;
  for (; gate->bytesOut() < 90'000; ++sent) send(*backend, {}, 1);
  EXPECT_GT(sent, 30u) << "each costs little more than its texts";
  const Dictionary payload{{"text", randomText(20'000)}};
  auto next = std::async(std::launch::async, [&] { send(*backend, payload, 1); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(requests().size(), sent);
  backend->setCorrelatedSessionID("NOT.BLOCKED");  // no lock is held meanwhile
  while (next.wait_for(std::chrono::milliseconds(0)) == std::future_status::timeout &&
         platform.http->exchangesUnderWay() > 0)
    platform.http->completeNext(FakeHTTPClient::response(200));
  ASSERT_EQ(next.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(requests().size(), sent + 1);
}

TEST_F(PostThreadsTest, TheTextThatAFlushKeepsForItsClientCountsAtTheGate) {
  sessionInfo.set("BatchEvent", true);
  constexpr std::size_t byteLimit = 100'000;
  for (const bool hasClient : {true, false}) {
    const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, byteLimit);
    const auto backend = makeFor(openEntry());
    backend->setExchangeGate(gate);
    const auto flush = [&] {  // compresses to next to nothing
      send(*backend, {{"text", std::string(byteLimit / 2, 'x')}});
      backend->flushMessagesWithCompletion(hasClient ? [](auto, auto) {} : FlushCompletion());
    };
    flush();
    auto next = std::async(std::launch::async, flush);
    EXPECT_EQ(next.wait_for(std::chrono::milliseconds(hasClient ? 50 : 20'000)),
              hasClient ? std::future_status::timeout : std::future_status::ready);
    while (platform.http->exchangesUnderWay() > 0)
      platform.http->completeNext(FakeHTTPClient::response(200));
    next.wait();
    while (platform.http->exchangesUnderWay() > 0)
      platform.http->completeNext(FakeHTTPClient::response(200));
  }
}

TEST_F(PostThreadsTest, ExchangesThatEndedMakeRoomWithoutWaiting) {
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::error(1, "refused"); });
  const auto backend = makeFor(openEntry());
  backend->setExchangeGate(std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1));
  for (int i = 0; i < 10; ++i) send(*backend, {{"x", i}}, 1);
  EXPECT_EQ(requests().size(), 10u);
}

TEST_F(PostThreadsTest, WithoutAGateOfItsClientEachBackendHasItsOwn) {
  sessionInfo.set("BatchEvent", true);
  const auto first = makeFor(openEntry());
  const auto second = makeFor(openEntry());
  // The text that is kept for the client of the flush fills a gate by itself.
  send(*first, {{"text", std::string(ExchangeGate::clientByteLimit, 'x')}});
  first->flushMessagesWithCompletion([](auto, auto) {});
  send(*second, {{"x", 1}});
  auto next = std::async(std::launch::async, [&] { second->flushMessagesWithCompletion(nullptr); });
  EXPECT_EQ(next.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(requests().size(), 2u);
  while (platform.http->exchangesUnderWay() > 0)
    platform.http->completeNext(FakeHTTPClient::response(200));
}

TEST_F(PostThreadsTest, BackendsThatShareAGateWaitForEachOther) {
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  {
    const auto gone = makeFor(openEntry());
    gone->setExchangeGate(gate);
    send(*gone, {}, 1);
  }
  EXPECT_GT(gate->bytesOut(), 0u);
  const auto backend = makeFor(openEntry());
  backend->setExchangeGate(gate);
  auto next = std::async(std::launch::async, [&] { send(*backend, {}, 1); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  platform.http->completeNext(FakeHTTPClient::response(200));
  ASSERT_EQ(next.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(PostThreadsTest, WhatWaitsAtTheGateIsTheCompressedMessageOnly) {
  if (bytesInUse() == 0) GTEST_SKIP() << "this allocator does not tell what is in use";
  constexpr std::size_t size = std::size_t{8} << 20;
  const auto backend = makeFor(openEntryWith("override_dnu", 1));  // makes no log text
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, Budgets(), 1, 1);
  backend->setExchangeGate(gate);
  send(*backend, {});  // passes
  const Dictionary payload{{"text", std::string(size, 'x')}};
  platform.log.clear();
  const std::size_t before = bytesInUse();
  auto next = std::async(std::launch::async, [&] { send(*backend, payload); });
  EXPECT_TRUE(waitUntil([&] { return platform.log.anyContains("Compressed file from"); }));
  EXPECT_TRUE(waitUntil([&] { return bytesInUse() < before + size / 4; }));
  EXPECT_EQ(requests().size(), 1u) << "waits all the while";
  platform.http->completeNext(FakeHTTPClient::response(200));
  ASSERT_EQ(next.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(PostThreadsTest, OtherSessionsMayChangeABackendWhileItBatches) {
  sessionInfo.set("BatchEvent", true);
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
  const auto backend = makeFor(openEntryWith("event_threshold", 1000));
  std::atomic<bool> done{false};
  std::thread other([&] {
    for (int i = 0; !done; ++i) {
      backend->setCorrelatedSessionID("ID." + std::to_string(i % 10));
      backend->setSamplingThreshold(i);
      backend->setState(BackendState::sending);
    }
  });
  constexpr int events = 1500;
  for (int i = 0; i < events; ++i) {
    send(*backend, {{"x", i}});
    if (i % 100 == 99) backend->flushMessagesWithCompletion(nullptr);
  }
  done = true;
  other.join();
  std::vector<std::string> expected;
  for (int i = 0; i < events; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(posted("x"), expected);
}

// Has another thread change the combined ID as soon as an event is on its way into the batch.
struct IDChanger final : LogSink {
  explicit IDChanger(HTTPSPostBackend& watched) : backend(watched) {
    installLog(this, LogLevel::debug);
  }
  ~IDChanger() override { installLog(nullptr, LogLevel::error); }
  void write(LogLevel, std::string_view text) override {
    if (!text.starts_with("HTTPSPostBackend(sendMessage): Batching")) return;
    change = std::async(std::launch::async, [this] { backend.setCorrelatedSessionID("NEW"); });
    change.wait_for(std::chrono::milliseconds(50));
  }
  HTTPSPostBackend& backend;
  std::future<void> change;
};

TEST_F(PostThreadsTest, ACombinedIDThatChangesMeanwhileReachesTheRecordToo) {
  sessionInfo.set("BatchEvent", true);
  const auto backend = makeFor(openEntry());
  {
    IDChanger changer(*backend);
    send(*backend, {{"x", 1}});
    changer.change.get();
  }
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("_sessionID"), std::vector<std::string>{"NEW"});
}

TEST_F(PostThreadsTest, AnAnswerFromAnotherThreadDisablesTheBackend) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  std::thread([&] { platform.http->completeNext(FakeHTTPClient::response(500)); }).join();
  EXPECT_EQ(backend->state(), BackendState::disabled);
}

TEST_F(PostThreadsTest, AMessageWaitsForTheMemoryOfItsUserBeforeItIsWritten) {
  Budgets budgets;
  const auto backend = makeFor(openEntry());
  backend->setExchangeGate(std::make_shared<ExchangeGate>(*platform.clock, budgets, 1));
  auto others = budgets.outgoing->take(1, std::size_t{96} << 20);
  ASSERT_TRUE(others);
  auto next = std::async(std::launch::async, [&] { send(*backend, {}, 1); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_TRUE(requests().empty());
  others.reset();
  ASSERT_EQ(next.wait_for(patience), std::future_status::ready);
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_GT(budgets.outgoing->held(), 0u) << "as long as it is under way";
  platform.http->completeNext(FakeHTTPClient::response(200));
  EXPECT_EQ(budgets.outgoing->held(), 0u);
}

TEST_F(PostThreadsTest, AMessageThatFindsNoMemoryWithinAMinuteIsLostWithALine) {
  Budgets budgets;
  const auto backend = makeFor(openEntry());
  backend->setExchangeGate(std::make_shared<ExchangeGate>(*platform.clock, budgets, 1));
  const auto others = budgets.outgoing->take(1, std::size_t{96} << 20);
  auto next = std::async(std::launch::async, [&] { send(*backend, {}, 1); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  platform.clock->advance(std::chrono::minutes(1));
  ASSERT_EQ(next.wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(requests().empty());
  ASSERT_EQ(platform.log.texts(LogLevel::error).size(), 1u);
  EXPECT_NE(platform.log.texts(LogLevel::error)[0].find("no memory for a message of 1 events"),
            std::string::npos);
}

TEST_F(PostThreadsTest, AMessageThatIsTooLongAsJSONIsLostWithALine) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"text", std::string(EventPoster::mostMessageBytes / 6, '\x01')}}, 1);
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(platform.log.texts(LogLevel::error).size(), 1u);
  send(*backend, {{"text", std::string(EventPoster::mostMessageBytes / 6 - 4096, '\x01')}}, 1);
  EXPECT_EQ(requests().size(), 1u);
}

}  // namespace
}  // namespace corvid
