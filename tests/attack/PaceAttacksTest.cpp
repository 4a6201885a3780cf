// Clients that want the daemon's time, and that of the servers it asks.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "base/Sanitizer.h"
#include "platform/data/PropertyList.h"
#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/CollidingKeys.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using PaceAttacks = AttackFixture;

TEST_F(PaceAttacks, KeysMadeToCollideCostNoMoreThanOthers) {
  Dictionary payload;
  for (const std::string& key : CollidingKeys::make(20'000)) payload.set(key, 1);
  const std::string message = event(3, payload);
  RawClient client = session();
  const auto start = steady_clock::now();
  client.write(message);
  EXPECT_TRUE(awaitAnswer(client, 3));
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  RecordProperty("milliseconds", static_cast<int>(took.count()));
  EXPECT_LT(took, slowness * milliseconds(1000));
}

TEST_F(PaceAttacks, SuchKeysInAnEnvelopeThatNobodySignedDoNotEither) {
  Dictionary envelope;
  for (const std::string& key : CollidingKeys::make(20'000)) envelope.set(key, "x");
  plan("storebags", {{"body", writeXMLPropertyList(envelope)}});
  RawClient client = connect();
  const auto start = steady_clock::now();
  client.write(bootstrap(0) + describe(attackersType));
  EXPECT_TRUE(awaitAnswer(client, 2));
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  RecordProperty("milliseconds", static_cast<int>(took.count()));
  EXPECT_EQ(timesLogged("fetchStorebagWithName: Signature is missing"), 1u);
  EXPECT_LT(took, slowness * milliseconds(1000));
}

TEST_F(PaceAttacks, FinishOfTheSameCallAgainAndAgainEndsTheConnection) {
  RawClient client = session();
  const std::string finish = envelope(
      [](capnp::rpc::Message::Builder message) { message.initFinish().setQuestionId(999); });
  std::string calls;
  for (std::uint32_t i = 0; i <= limits::unfinishedCalls; ++i)
    calls += call(10 + i, 3, [](capnp::rpc::Payload::Builder) {}) + finish;
  // What was finished is none of what was asked, so it makes no room.
  std::jthread reader([&] { (void)client.awaitClosed(); });
  client.write(calls);
  reader.join();
  EXPECT_EQ(timesLogged(" broke a rule: "), 1u);
}

TEST_F(PaceAttacks, CallsOnTheAnswersOfOtherCallsAreNotKept) {
  RawClient client = session();
  client.write(envelope([](capnp::rpc::Message::Builder message) {
    auto later = message.initCall();
    later.setQuestionId(9);
    later.initTarget().initPromisedAnswer().setQuestionId(2);
    later.setInterfaceId(capnp::typeId<wire::ClientSession>());
    later.initParams();
  }));
  EXPECT_TRUE(client.awaitClosed());
  EXPECT_EQ(timesLogged("a call on the answer of another call"), 1u);
}

}  // namespace
}  // namespace corvid
