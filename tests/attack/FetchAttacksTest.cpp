// Clients that want the daemon to ask the storebag server all the time: those of types without a
// storebag, for which it asks at each call.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>

#include "daemon/FetchPace.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int namelessType = 2;
constexpr std::size_t clientsThatFetch = 4;

class FetchAttacks : public AttackFixture {
 protected:
  void SetUp() override {
    AttackFixture::SetUp();
    TestClient first(_root.path());  // so that the victims' storebag is there
    ASSERT_EQ(first.configure({.clientType = attackersType}).text(), "httpPost");
    before = _lab.storebags().requestsReceived();
  }
  std::size_t fetches() { return _lab.storebags().requestsReceived() - before; }

  // Each has its client configured again and again.
  void flood() {
    for (std::size_t i = 0; i < clientsThatFetch; ++i)
      start(attacker, [this, i](WireClient& client) {
        for (;;) {
          configure(client, i % 2 ? unknownType : namelessType);
          ++calls;
        }
      });
  }
  // How long another user's new client waits for its configuration.
  milliseconds victimIsConfigured() {
    const auto begin = steady_clock::now();
    TestClient victim(_root.path());
    EXPECT_EQ(victim.configure({.clientType = attackersType}).text(), "httpPost");
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
  }

  std::size_t before = 0;
  std::atomic<std::size_t> calls = 0;
};

TEST_F(FetchAttacks, OfTypesWithoutAStorebagHaveABurstAndThenOneASecond) {
  publish("(null)", storebagPostingTo(urlOf("events")));  // what such types are answered with
  const auto begin = steady_clock::now();
  flood();
  ASSERT_TRUE(waitUntil([&] { return fetches() >= FetchPace::burst; }));
  milliseconds longest{0};
  while (steady_clock::now() < begin + seconds(4))
    longest = std::max(longest, victimIsConfigured());
  const auto fetched = fetches();
  const auto took = std::chrono::duration_cast<seconds>(steady_clock::now() - begin);
  RecordProperty("fetches", static_cast<int>(fetched));
  RecordProperty("victim_waits_ms", static_cast<int>(longest.count()));
  EXPECT_LE(fetched, static_cast<std::size_t>(FetchPace::burst + took.count() + 1));
  EXPECT_LT(longest, seconds(1));
}

TEST_F(FetchAttacks, ThatFailedAreNotRepeatedSoThatASlowServerStallsNobodyForLong) {
  plan("storebags", {{"status", 503}, {"delay", 1}, {"times", -1}});
  flood();
  ASSERT_TRUE(waitUntil([&] { return fetches() == 1; }));
  int stalls = 0;
  for (int i = 0; i < 20; ++i) {
    stalls += victimIsConfigured() > milliseconds(400) ? 1 : 0;
    ASSERT_LE(stalls, 1) << "those who wait for the one fetch";
    std::this_thread::sleep_for(milliseconds(50));
  }
  EXPECT_TRUE(waitUntil([&] { return calls > 100; })) << "the attack goes on";
  EXPECT_EQ(fetches(), 1u);
}

}  // namespace
}  // namespace corvid
