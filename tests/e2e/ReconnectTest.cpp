// Daemons that end and come back, and what their clients see of it.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Reading.h"
#include "base/UnixAddress.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::steady_clock;

const std::string connectionLost = corvid_error_text(CORVID_ERROR_CONNECTION_LOST);
const std::string notConnected = corvid_error_text(CORVID_ERROR_NOT_CONNECTED);

class Reconnect : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events")));
    publish("orrery",
            storebagPostingTo(urlOf("events"), {{"expedite", 0}, {"event_threshold", 49}}));
    startDaemon();
  }
  void end(int signal) {
    _daemon->signal(signal);
    EXPECT_EQ(_daemon->waitForExit(), -signal);
  }
  void expectReports(TestClient& client, const std::string& mark) {
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
  }
  // The start messages that have arrived.
  std::size_t starts() {
    std::size_t count = 0;
    for (const Dictionary& record : records())
      count += integerAt(record, "_method") == 0 && integerAt(record, "_status") == 0;
    return count;
  }
};

TEST_F(Reconnect, TheNextCallFindsTheNewDaemonWhichKnowsTheClient) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  expectReports(client, "before");
  EXPECT_TRUE(waitUntil([&] { return starts() == 1; }));
  for (int i = 1; i <= 3; ++i) {
    end(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return client.invalidations() == i; }));
    EXPECT_EQ(client.send("nobody there").text(), notConnected);
    startDaemon();
    expectReports(client, fmt::format("after {}", i));
    EXPECT_EQ(client.reconnections(), i);
    EXPECT_TRUE(waitUntil([&] { return starts() == static_cast<std::size_t>(i) + 1; }));
  }
  EXPECT_EQ(arrivals("nobody there"), 0u);
  EXPECT_EQ(client.invalidations(), 3);
}

TEST_F(Reconnect, CallsUnderWayEndWithTheirError) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  _daemon->freeze();
  std::vector<TestClient::Outcome> calls;
  for (int i = 0; i < 300; ++i) calls.push_back(client.send("stopped"));
  calls.push_back(client.flush());
  calls.push_back(client.displayURL());
  EXPECT_FALSE(calls.front().isThere());
  end(SIGKILL);
  const auto killed = steady_clock::now();
  for (const auto& call : calls) EXPECT_EQ(call.text(), connectionLost);
  EXPECT_LT(steady_clock::now() - killed, std::chrono::seconds(5));
  EXPECT_TRUE(waitUntil([&] { return client.invalidations() == 1; }));
  EXPECT_EQ(arrivals("stopped"), 0u);
  startDaemon();
  expectReports(client, "after");
}

TEST_F(Reconnect, ADaemonThatStandsStillHoldsNobodyPastTheDeadline) {
  constexpr std::chrono::milliseconds deadline{200};
  constexpr std::chrono::seconds generous{5};
  constexpr int moreThanTheQueueTakes = 10'000;
  TestClient client(_root.path(), deadline);
  ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
  _daemon->freeze();
  const auto stopped = steady_clock::now();
  std::size_t refused = 0;
  for (int i = 0; i < moreThanTheQueueTakes && refused == 0; ++i)
    refused += client.session().sendMessage(7, 2) == CORVID_ERROR_QUEUE_FULL;
  EXPECT_EQ(refused, 1u);
  EXPECT_LT(steady_clock::now() - stopped, generous);
  {
    TestClient another(_root.path(), deadline);
    const TestClient::Outcome configured = another.configure({.clientType = 5});
    EXPECT_FALSE(configured.isThere());
  }  // gives its calls until the deadline
  EXPECT_LT(steady_clock::now() - stopped, generous);
  _daemon->signal(SIGCONT);
  // It has a full queue to work off first.
  EXPECT_TRUE(waitUntil([&] { return client.send("goes on").text() == "none"; }));
  EXPECT_TRUE(waitUntil([&] { return arrivals("goes on") == 1; }));
  EXPECT_EQ(client.invalidations(), 0);
}

TEST_F(Reconnect, TheUserInfoGivenLastIsKnownAgain) {
  publish("cadence", storebagPostingTo(urlOf("events"), admitsEverybody()));
  TestClient client(_root.path());
  const TestClient::Description described{.clientType = 9, .clientName = "Late"};
  // Without its user info at first.
  ASSERT_EQ(client.session().setSessionInfo(TestClient::sessionInfo(described)), CORVID_OK);
  ASSERT_EQ(client.session().startConfig(), CORVID_OK);
  EXPECT_EQ(client.fetchStates(*TestClient::userInfo(described)).text(), "httpPost");
  end(SIGKILL);
  EXPECT_TRUE(waitUntil([&] { return client.invalidations() == 1; }));
  startDaemon();
  expectReports(client, "known again");
  EXPECT_EQ(*stringAt(records().back(), "_clientName"), "Late");
}

// A daemon that is killed costs what is held, and nothing else.
TEST_F(Reconnect, WhatIsHeldIsLostWithAKilledDaemon) {
  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    TestClient client(_root.path());
    ASSERT_EQ(client.configure({.clientType = 8, .batches = true}).text(), "httpPost");
    EXPECT_EQ(client.send("flushed").text(), "none");
    EXPECT_EQ(client.flush().text(), "flushed");
    EXPECT_EQ(client.send("held").text(), "none");
    end(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return client.invalidations() == 1; }));
    startDaemon();
    EXPECT_EQ(client.send("later").text(), "none");
    EXPECT_EQ(client.flush().text(), "flushed");
  }
  EXPECT_EQ(arrivals("flushed"), 2u);
  EXPECT_EQ(arrivals("held"), 0u);
  EXPECT_EQ(arrivals("later"), 2u);
}

// Started by its socket, which outlives it.
class SocketActivation : public Reconnect {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events")));
    const std::string path = _root.path("run/corvidd/com.halcyon.corvidd");
    ASSERT_EQ(UnixAddress(path).bind(_listener.get()), 0);
    ASSERT_EQ(listen(_listener.get(), 16), 0);
  }
  void startBySocket() {
    _daemon.emplace(
        _root,
        std::vector<std::string>{"--log", "stderr", "--log-level", "debug", "--idle-exit", "1"},
        _listener.get());
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }

  const Descriptor _listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

TEST_F(SocketActivation, ACallMadeBeforeTheDaemonRunsIsServed) {
  TestClient client(_root.path());
  const TestClient::Outcome configured = client.configure({.clientType = 5});
  const TestClient::Outcome sent = client.send("early");
  EXPECT_FALSE(configured.isThere());
  startBySocket();
  EXPECT_EQ(configured.text(), "httpPost");
  EXPECT_EQ(sent.text(), "none");
  EXPECT_TRUE(waitUntil([&] { return arrivals("early") == 1; }));
}

TEST_F(SocketActivation, TheIdleDaemonEndsAndTheNextServesTheSameSocket) {
  {
    TestClient client(_root.path());
    startBySocket();
    ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
    expectReports(client, "first");
    EXPECT_EQ(_daemon->waitForExit(std::chrono::milliseconds(1500)), std::nullopt);
  }
  EXPECT_EQ(_daemon->waitForExit(), 0) << _daemon->standardError();
  TestClient client(_root.path());
  const TestClient::Outcome configured = client.configure({.clientType = 5});
  startBySocket();
  EXPECT_EQ(configured.text(), "httpPost");
  expectReports(client, "second");
}

TEST_F(SocketActivation, AnExchangeUnderWayKeepsTheIdleDaemonUntilItEnds) {
  startBySocket();
  {
    TestClient client(_root.path());
    ASSERT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
    plan("events", {{"times", -1}, {"delay", 1.8}});
    EXPECT_EQ(client.send("slow").text(), "none");
  }
  EXPECT_EQ(_daemon->waitForExit(std::chrono::milliseconds(1500)), std::nullopt);
  EXPECT_EQ(_daemon->waitForExit(), 0);
  EXPECT_EQ(arrivals("slow"), 1u);
  EXPECT_EQ(timesLogged("post error"), 0u);
}

}  // namespace
}  // namespace corvid
