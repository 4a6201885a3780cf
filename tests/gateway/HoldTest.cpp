#include <fmt/format.h>

#include "gateway/Limits.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;
using HoldTest = GatewayTest;

TEST_F(HoldTest, APostWaitsForALogThatIsNotReady) {
  log.setReady(false);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return gateway->balance().held == 1; }));
  EXPECT_FALSE(caller.answer(100ms));
  EXPECT_EQ(log.published(), 0u);
  log.setReady(true);
  EXPECT_EQ(caller.answer()->status, 200);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST_F(HoldTest, APostIsPublishedAgainWhereTheLogDoesNotAnswer) {
  log.setMode(FakeLog::Mode::failsToAnswer);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return log.published() >= 3; }));
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(caller.answer()->status, 200);
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_GE(gateway->balance().publishedAgain, 2u);
}

TEST_F(HoldTest, APostThatWasHeldTooLongIsAnswered503) {
  options.hold = 1s;
  log.setMode(FakeLog::Mode::silent);
  start();
  const auto got = postEvents(onePost);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 503);
  EXPECT_EQ(got->body, "the log does not answer\n");
  EXPECT_EQ(settled(Rule::logUnanswered), 1u);
}

TEST_F(HoldTest, Or429AsTheOperatorWishes) {
  options.hold = 0s;
  options.whenFull = 429;
  log.setReady(false);
  start();
  EXPECT_EQ(postEvents(onePost)->status, 429);
  EXPECT_EQ(settled(Rule::logUnanswered), 1u) << "which is the gateway's failure all the same";
}

TEST_F(HoldTest, AnAcknowledgementThatComesTooLateHarmsNothing) {
  options.hold = 0s;
  log.setMode(FakeLog::Mode::silent);
  start();
  EXPECT_EQ(postEvents(onePost)->status, 503);
  log.setMode(FakeLog::Mode::stores);
  ASSERT_TRUE(waitUntil([&] { return log.messages().size() == 1; }));
  EXPECT_EQ(postEvents(onePost)->status, 200);
}

TEST_F(HoldTest, ALogThatHasGoneBackToSilenceHasEveryPostHeldOnItsOwn) {
  log.setMode(FakeLog::Mode::silent);
  start();
  std::vector<std::unique_ptr<Caller>> callers;
  for (int i = 0; i < 20; ++i) {
    callers.push_back(std::make_unique<Caller>(port));
    callers.back()->send(request("/v1/events", fmt::format(R"({{"n":{},"events":[]}})", i)));
  }
  ASSERT_TRUE(waitUntil([&] { return log.published() == 20; }));
  EXPECT_EQ(gateway->balance().held, 20u);
  log.setMode(FakeLog::Mode::stores);
  for (const auto& caller : callers) EXPECT_EQ(caller->answer()->status, 200);
  EXPECT_EQ(log.messages().size(), 20u);
}

class FullTest : public GatewayTest {
 protected:
  FullTest() {
    options.memory = 16 * limits::mebibyte;
    inForce.proxies = {*AddressRange::parse("127.0.0.1")};
    log.setMode(FakeLog::Mode::silent);
  }
  static std::string client(std::size_t number) {
    return fmt::format("X-Real-IP: 192.0.2.{}", number);
  }
  // Posts of clients 0, 1, … whose memory is more than three quarters of what there is.
  void fill() {
    const std::string blanks(limits::mebibyte, ' ');
    while (gateway->memoryUsed() < 12 * limits::mebibyte) {
      const std::size_t published = log.published();
      fillers.push_back(std::make_unique<Caller>(port));
      fillers.back()->send(
          request("/v1/events", fmt::format(R"({{"n":{},"events":[]}}{})", fillers.size(), blanks),
                  {client(fillers.size() - 1)}));
      ASSERT_TRUE(waitUntil([&] { return log.published() == published + 1; }));
    }
  }
  std::vector<std::unique_ptr<Caller>> fillers;
};

TEST_F(FullTest, ABodyIsNotReadWhileMemoryIsShortAndIsTakenLater) {
  start();
  fill();
  Caller caller(port);
  const std::size_t before = gateway->memoryUsed();
  caller.send(request("/v1/events", onePost, {client(0)}));
  ASSERT_TRUE(waitUntil([&] { return gateway->balance().held == fillers.size() + 1; }));
  EXPECT_FALSE(caller.answer(100ms));
  EXPECT_EQ(gateway->memoryUsed(), before);
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(caller.answer()->status, 200);
  for (const auto& filler : fillers) EXPECT_EQ(filler->answer()->status, 200);
}

TEST_F(FullTest, WhoWaitedTooLongForMemoryIsToldSo) {
  options.hold = 1s;
  start();
  // Bodies that are not whole.
  const std::string part = R"({"events":[)" + std::string(3 * limits::mebibyte, ' ');
  while (gateway->memoryUsed() < 12 * limits::mebibyte) {
    const std::size_t before = gateway->memoryUsed();
    fillers.push_back(std::make_unique<Caller>(port));
    fillers.back()->send(
        fmt::format("POST /v1/events HTTP/1.1\r\nContent-Length: 6000000\r\n{}\r\n\r\n{}",
                    client(fillers.size()), part));
    ASSERT_TRUE(waitUntil([&] { return gateway->memoryUsed() > before + 3 * limits::mebibyte; }));
  }
  const auto got = postEvents(onePost, {client(1)});
  EXPECT_EQ(got->status, 503);
  EXPECT_EQ(got->body, "too many requests are under way\n");
  EXPECT_EQ(settled(Rule::memoryFull), 1u);
  fillers.clear();
}

TEST_F(FullTest, WhoHasNothingYetNeedNotWaitForThoseWhoFillTheMemory) {
  start();
  fill();
  Caller caller(port);
  const std::size_t published = log.published();
  caller.send(request("/v1/events", onePost, {client(200)}));
  EXPECT_TRUE(waitUntil([&] { return log.published() == published + 1; }));
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(caller.answer()->status, 200);
}

TEST_F(FullTest, OneClientLeavesMemoryToOthers) {
  start();
  // Bodies that are not whole, of one client, until it may have no more.
  const std::string part = R"({"events":[)" + std::string(2 * limits::mebibyte, ' ');
  while (settled(Rule::clientMemory) == 0) {
    ASSERT_LT(fillers.size(), 20u);
    const std::size_t before = gateway->memoryUsed();
    fillers.push_back(std::make_unique<Caller>(port));
    fillers.back()->send(fmt::format(
        "POST /v1/events HTTP/1.1\r\nContent-Length: 6000000\r\n{}\r\n\r\n{}", client(1), part));
    ASSERT_TRUE(waitUntil([&] {
      return gateway->memoryUsed() > before + 2 * limits::mebibyte ||
             settled(Rule::clientMemory) > 0;
    }));
  }
  EXPECT_EQ(fillers.back()->answer()->body, "the requests of this client take too much memory\n");
  EXPECT_LE(gateway->memoryUsed(), options.memory / 3 * 2);
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(postEvents(onePost, {client(2)})->status, 200);
  fillers.clear();
}

TEST_F(FullTest, WhatCannotGrowAnyMoreIsGivenUp) {
  start();
  fill();
  const std::string large = gzip(R"({"events":[]})" + std::string(30 * limits::mebibyte, ' '));
  const auto got = postEvents(large, {"Content-Encoding: gzip", client(200)});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 503);
  EXPECT_EQ(settled(Rule::memoryFull), 1u);
  fillers.clear();
}

using StopTest = GatewayTest;

TEST_F(StopTest, IdleConnectionsAreClosedAndTheGatewayEnds) {
  start();
  Caller idle(port);
  idle.send(request("/v1/events", onePost));
  EXPECT_EQ(idle.answer()->status, 200);
  gateway->stop();
  EXPECT_TRUE(idle.isClosed());
  EXPECT_TRUE(gateway->awaitEnd(patience));
}

TEST_F(StopTest, WhatWasReadIsFinished) {
  log.setMode(FakeLog::Mode::silent);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  Caller half(port);
  half.send("POST /v1/events HTTP/1.1\r\nContent-Length: 13\r\n\r\n{\"even");
  ASSERT_TRUE(waitUntil([&] { return gateway->balance().held == 2; }));
  gateway->stop();
  EXPECT_FALSE(gateway->awaitEnd(100ms));
  EXPECT_THROW(Caller{port}, std::runtime_error) << "no more are accepted";
  log.setMode(FakeLog::Mode::stores);
  const auto got = caller.answer();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200);
  EXPECT_EQ(got->headers.at("connection"), "close");
  half.send("ts\":[]}");
  EXPECT_EQ(half.answer()->status, 200);
  EXPECT_TRUE(caller.isClosed());
  EXPECT_TRUE(half.isClosed());
  EXPECT_TRUE(gateway->awaitEnd(patience));
}

TEST_F(StopTest, ALogThatNeverAnswersDoesNotKeepItLongerThanItHolds) {
  options.hold = 1s;
  log.setMode(FakeLog::Mode::silent);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return log.published() == 1; }));
  gateway->stop();
  EXPECT_EQ(caller.answer()->status, 503);
  EXPECT_TRUE(caller.isClosed());
  EXPECT_TRUE(gateway->awaitEnd(patience));
}

TEST_F(StopTest, AGatewayThatGoesAtOnceLeavesNothingBehind) {
  log.setMode(FakeLog::Mode::silent);
  start();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return log.published() == 1; }));
  gateway.reset();
  log.setMode(FakeLog::Mode::stores);  // answers what has gone
  EXPECT_TRUE(caller.isClosed());
}

}  // namespace
}  // namespace corvid::fleet
