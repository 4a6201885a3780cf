// Clients that want the daemon to hold as much of theirs as it can.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <thread>

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
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t slowness = 8;
#else
constexpr std::size_t slowness = 1;
#endif

// The start of a message of 16 MiB, and a little of it.
std::string announcement() {
  constexpr std::size_t words = limits::messageBytes / 8 - 1;
  return numbers({0, static_cast<std::uint32_t>(words)}) + std::string(64 * 1024, '\0');
}

struct MemoryAttacks : AttackFixture {
  void expectPeakBelow(std::size_t bytes) const {
    const std::size_t peak = _daemon->peakMemory();
    RecordProperty("peak_mebibytes", static_cast<int>(peak / mebibyte));
    EXPECT_LT(peak, slowness * bytes) << "peak of " << peak / mebibyte << " MiB";
  }
  void expectVictimWaitsLittle() {
    const milliseconds waits = victimWaits(200);
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
  std::jthread attack([&] {
    amplify(12, 5 * mebibyte);
    amplify(12, limits::messageBytes - 4096);
  });
  expectVictimWaitsLittle();
  attack.join();
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
  std::jthread attack([&] {
    together(40, [&](std::size_t number) {
      RawClient client = session(number % 8 == 0 ? secondAttacker : attacker, number % 4 < 2);
      const std::string text(std::min(number % 8 * mebibyte, 5 * mebibyte), '\x01');
      for (std::uint32_t i = 0; i < 50; ++i)
        client.write(event(3 + i, {{"text", std::string(15'000, '\x01')}}, false));
      client.write(event(100, {{"text", text}}));
      EXPECT_TRUE(awaitAnswer(client, 100));
    });
  });
  expectVictimWaitsLittle();
  attack.join();
  expectPeakBelow(512 * mebibyte);
}

}  // namespace
}  // namespace corvid
