// Clients that want the daemon to hold as much of theirs as it can.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <list>
#include <string>
#include <vector>

#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

bool isReady(const std::future<void>& attack) {
  return attack.wait_for(milliseconds(0)) == std::future_status::ready;
}

struct MemoryAttacks : AttackFixture {
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

}  // namespace
}  // namespace corvid
