// What becomes of answered events when the real daemon is told to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class Stop : public LabFixture {
 protected:
  void SetUp() override {
    publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
  }
  // A client with three answered events that wait in its batch, and its start message.
  std::unique_ptr<TestClient> clientWithABatch() const {
    auto client = std::make_unique<TestClient>(_root.path());
    EXPECT_EQ(client->configure({.batches = true, .clientName = "Player"}).text(), "httpPost");
    for (const char* const mark : {"one", "two", "three"})
      EXPECT_EQ(client->send(mark).text(), "none");
    return client;
  }
  std::string lost(int events) const {
    return "main: Stopped with " + std::to_string(events) + " events lost (lostAtStop)";
  }
};

TEST_F(Stop, AnsweredEventsAreDeliveredFirst) {
  for (const int signal : {SIGTERM, SIGINT}) {
    startDaemon();
    const auto client = clientWithABatch();
    const std::size_t before = records().size();
    _daemon->signal(signal);
    EXPECT_EQ(_daemon->waitForExit(), 0);
    EXPECT_EQ(records().size() - before, 5u) << "with its start and end messages";
    EXPECT_EQ(timesLogged("lostAtStop"), 0u);
  }
  for (const char* const mark : {"one", "two", "three"}) EXPECT_EQ(arrivals(mark), 2u);
}

TEST_F(Stop, TheSocketsAreGone) {
  startDaemon();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 0);
  EXPECT_FALSE(std::filesystem::exists(_root.path("run/corvidd/com.halcyon.corvidd")));
  EXPECT_FALSE(std::filesystem::exists(_root.path("run/corvidd/control")));
}

TEST_F(Stop, WhatAServerDoesNotTakeInTimeIsLostAndSaid) {
  plan("events", {{"silent", true}, {"times", -1}});
  startDaemon({"--stop-timeout", "1"});
  const auto client = clientWithABatch();
  const auto start = steady_clock::now();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 0);
  EXPECT_GE(steady_clock::now() - start, milliseconds(900));
  EXPECT_LT(steady_clock::now() - start, seconds(8));
  EXPECT_EQ(timesLogged(lost(5)), 1u) << _daemon->standardError();
  EXPECT_FALSE(std::filesystem::exists(_root.path("run/corvidd/com.halcyon.corvidd")));
}

TEST_F(Stop, WithoutATimeNothingIsWaitedFor) {
  plan("events", {{"silent", true}, {"times", -1}});
  startDaemon({"--stop-timeout", "0"});
  const auto client = clientWithABatch();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(seconds(5)), 0);
  EXPECT_EQ(timesLogged(lost(5)) + timesLogged(lost(4)), 1u) << "the end message may not be there";
}

TEST_F(Stop, ASecondSignalEndsAtOnce) {
  plan("events", {{"silent", true}, {"times", -1}});
  startDaemon({"--stop-timeout", "60"});
  const auto client = clientWithABatch();
  _daemon->signal(SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return client->invalidations() == 1; }));
  const auto start = steady_clock::now();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 1);
  EXPECT_LT(steady_clock::now() - start, seconds(1));
}

TEST_F(Stop, TheStatusLineNamesSessionsHeldEventsAndStorebags) {
  startDaemon();
  const auto client = clientWithABatch();
  EXPECT_TRUE(waitUntil([&] {
    return _daemon->latestStatus() == "1 sessions, 4 events held, storebag lumen 7";
  })) << _daemon->latestStatus();
}

TEST_F(Stop, NothingIsSaidWhereNothingIsLost) {
  startDaemon();
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 0);
  EXPECT_EQ(timesLogged("Stopped with"), 0u);
}

// From a seed, so that a failure can be repeated: a daemon that is told to end at any moment, while
// a client goes on. What was answered has arrived, once.
TEST_F(Stop, AClientThatGoesOnOverRestartsLosesNothingThatWasAnswered) {
  constexpr unsigned seed = 20261122;
  const char* const rounds = std::getenv("CORVID_RESTARTS");
  const int restarts = rounds ? std::atoi(rounds) : 10;
  std::mt19937 numbers(seed);
  const auto random = [&] { return static_cast<unsigned>(numbers()); };
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true, .clientName = "Player"}).text(), "httpPost");
  std::vector<std::string> answered;
  int number = 0;
  const auto sendSome = [&](unsigned events) {
    for (unsigned i = 0; i < events; ++i) {
      const std::string mark = "event " + std::to_string(++number);
      if (client.send(mark, random() % 4 == 0 ? 1 : 0).text() == "none") answered.push_back(mark);
    }
  };
  for (int round = 0; round < restarts; ++round) {
    sendSome(1 + random() % 20);
    if (random() % 3 == 0) client.flush().text();
    _daemon->signal(SIGTERM);
    if (random() % 2 == 0) sendSome(random() % 5);
    ASSERT_EQ(_daemon->waitForExit(), 0);
    startDaemon();
  }
  client.flush().text();
  EXPECT_GT(answered.size(), static_cast<std::size_t>(restarts));
  std::map<std::string, int> arrived;
  const auto lookAgain = [&] {
    arrived.clear();
    for (const Dictionary& record : records())
      if (const std::string* const mark = stringAt(record, "mark")) ++arrived[*mark];
  };
  EXPECT_TRUE(waitUntil([&] {
    lookAgain();
    return std::ranges::all_of(answered, [&](const auto& mark) { return arrived.contains(mark); });
  }));
  for (const std::string& mark : answered) EXPECT_EQ(arrived[mark], 1) << mark << ", seed " << seed;
  EXPECT_EQ(timesLogged("lostAtStop"), 0u);
}

}  // namespace
}  // namespace corvid
