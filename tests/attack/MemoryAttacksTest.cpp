// Clients that want the daemon to hold as much of theirs as it can.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <list>
#include <string>
#include <vector>

#include "base/Sanitizer.h"
#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/e2e/Limits.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr milliseconds victimsPatience{100};

// Sanitizers take several times as much memory and time.
constexpr std::size_t slowness = hasSanitizer ? 8 : 1;

// The start of a message of 16 MiB, and a little of it.
std::string announcement() {
  constexpr std::size_t words = limits::messageBytes / 8 - 1;
  return numbers({0, static_cast<std::uint32_t>(words)}) + std::string(64 * 1024, '\0');
}

bool isReady(const std::future<void>& attack) {
  return attack.wait_for(milliseconds(0)) == std::future_status::ready;
}

struct MemoryAttacks : AttackFixture {
  void expectPeakBelow(std::size_t bytes) const {
    const std::size_t peak = _daemon->peakMemory();
    RecordProperty("peak_mebibytes", static_cast<int>(peak / mebibyte));
    EXPECT_LT(peak, slowness * bytes) << "peak of " << peak / mebibyte << " MiB";
  }
  void expectVictimWaitsLittle(const std::function<bool()>& isOver = [] { return true; }) {
    const milliseconds waits = victimWaits(isOver);
    RecordProperty("victim_waits_ms", static_cast<int>(waits.count()));
    EXPECT_LT(waits, slowness * victimsPatience);
  }
  // So many clients each send this much text that JSON writes sixfold, and wait for the answer.
  void amplify(std::size_t clients, std::size_t bytes) const {
    const std::string message = event(3, {{"text", std::string(bytes, '\x01')}});
    together(clients, [&](std::size_t) {
      RawClient client = session();
      client.write(message);
      EXPECT_TRUE(awaitAnswer(client, 3));
    });
  }
};

TEST_F(MemoryAttacks, UnfinishedMessagesHoldAUsersShareUntilTheirTimeIsUp) {
  std::list<RawClient> clients;
  for (int i = 0; i < 250; ++i) {
    clients.push_back(session());
    clients.back().write(announcement());
  }
  expectVictimWaitsLittle();
  expectPeakBelow(96 * mebibyte);
  EXPECT_TRUE(
      waitUntil([&] { return timesLogged("a message that was not complete after 30 s") > 0; },
                limits::messageTime + patience));
}

TEST_F(MemoryAttacks, TextThatJSONWritesSixfoldIsWrittenWithinAUsersShare) {
  const auto attack = std::async(std::launch::async, [&] {
    amplify(12, 5 * mebibyte);
    amplify(12, limits::messageBytes - 4096);
  });
  expectVictimWaitsLittle([&] { return isReady(attack); });
  EXPECT_EQ(timesLogged(", and is lost"), 12u) << "too long as JSON";
  expectPeakBelow(384 * mebibyte);
}

TEST_F(MemoryAttacks, EventsThatAreHeldAreBoundedAndPostedWhereTheyFindNoRoom) {
  constexpr std::size_t clients = 100;
  constexpr std::size_t events = 6;
  std::list<RawClient> sessions;
  for (std::size_t i = 0; i < clients; ++i) {
    sessions.push_back(session(attacker, true));
    for (std::uint32_t number = 0; number < events; ++number) {
      sessions.back().write(
          event(3 + number, {{"mark", "held"}, {"text", std::string(mebibyte / 2, 'x')}}));
      EXPECT_TRUE(awaitAnswer(sessions.back(), 3 + number));
    }
  }
  expectVictimWaitsLittle();
  expectPeakBelow(128 * mebibyte);
  sessions.clear();  // flushes the rest
  EXPECT_TRUE(waitUntil([&] { return arrivals("held") == clients * events; }))
      << arrivals("held") << " arrived";
}

TEST_F(MemoryAttacks, AllTogetherStayBelowHalfAGibibyte) {
  std::list<RawClient> unfinished;
  for (int i = 0; i < 100; ++i) {
    unfinished.push_back(session(secondAttacker));
    unfinished.back().write(announcement());
  }
  // Made beforehand: the attack is to cost the daemon's time and not this process's.
  const std::string small = event(3, {{"text", std::string(15'000, '\x01')}}, false);
  std::vector<std::string> large;
  for (std::size_t size = 1; size <= 5; ++size)
    large.push_back(event(4, {{"text", std::string(size * mebibyte, '\x01')}}));
  const auto attack = std::async(std::launch::async, [&] {
    together(40, [&](std::size_t number) {
      RawClient client = session(attacker, number % 4 < 2);
      client.write(small);
      client.write(large[number % large.size()]);
      EXPECT_TRUE(awaitAnswer(client, 4));
    });
  });
  expectVictimWaitsLittle([&] { return isReady(attack); });
  expectPeakBelow(512 * mebibyte);
}

}  // namespace
}  // namespace corvid
