// What becomes of open connections when entitlements change.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Wakeup.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using std::chrono::steady_clock;

constexpr const char* mayConnect = "com.halcyon.private.corvidd";
const Dictionary entitled{{mayConnect, true}};

// What each peer is entitled to is by the order of connecting.
class EntitlementChangesTest : public ServiceFixture {
 protected:
  EntitlementChangesTest() {
    changes = {change.descriptor(), [this] {
                 change.drain();
                 notice.change([this] { ++taken; });
               }};
  }

  void serve(std::vector<Dictionary> atFirst) {
    granted = std::move(atFirst);
    auto bound = IPCListener::serving(ServiceSocket::bind(path),
                                      [this](int) {
                                        const std::size_t peer = connected++;
                                        return [this, peer] {
                                          Dictionary now;
                                          notice.change([&] { ++asked, now = granted.at(peer); });
                                          if (now.contains("throws"))
                                            throw std::runtime_error("the folder burns");
                                          return now;
                                        };
                                      },
                                      {tokens, budgets});
    ASSERT_TRUE(bound) << bound.failure().message;
    listener = std::move(bound).value();
    listener->resume(delegate, {}, changes);
  }
  void entitle(std::size_t peer, Dictionary now) {
    notice.change([&] { granted.at(peer) = std::move(now); });
  }
  bool awaitLooks(int count) {
    return notice.await([&] { return taken >= count; });
  }
  std::string closing(std::size_t peer, std::string_view reason) {
    return "IPCConnection: Closing connection " + std::to_string(peer + 1) + " of process " +
           std::to_string(getpid()) + ", user " + std::to_string(getuid()) + ": " +
           std::string(reason);
  }

  Wakeup change;
  Notice notice;
  std::vector<Dictionary> granted;
  std::atomic<std::size_t> connected{0};
  int taken = 0;
  int asked = 0;
};

TEST_F(EntitlementChangesTest, CloseWhoLostAnEntitlementAndNobodyElse) {
  serve({entitled, entitled});
  RawClient first(path);
  ASSERT_TRUE(delegate->at(0).connection);
  WireClient second(path);
  EXPECT_EQ(sendEvent(second, 2, 1), "sent 2");
  entitle(0, {{mayConnect, false}});
  change.wake();
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_TRUE(first.awaitClosed());
  EXPECT_EQ(sendEvent(second, 3, 1), "sent 3");
  EXPECT_TRUE(waitUntil([&] { return !log.texts(LogLevel::warning).empty(); }));
  EXPECT_EQ(log.texts(LogLevel::warning), std::vector{closing(0, "an entitlement was taken back")});
}

TEST_F(EntitlementChangesTest, CloseWhoLostAnyOfThem) {
  serve({Dictionary{{mayConnect, true}, {"com.halcyon.other", true}}});
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  entitle(0, entitled);
  change.wake();
  client.awaitClosed();
}

TEST_F(EntitlementChangesTest, AreNothingToWhoGainsSome) {
  serve({entitled});
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  entitle(0, {{mayConnect, true}, {"com.halcyon.other", true}});
  change.wake();
  ASSERT_TRUE(notice.await([&] { return asked == 2; }));
  EXPECT_EQ(sendEvent(client, 2, 1), "sent 2");
  EXPECT_EQ(delegate->at(0).connection->valueForEntitlement("com.halcyon.other"), std::nullopt);
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
}

TEST_F(EntitlementChangesTest, CloseWhoseEntitlementsCannotBeRead) {
  serve({entitled});
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  entitle(0, {{mayConnect, true}, {"throws", true}});
  change.wake();
  client.awaitClosed();
  EXPECT_TRUE(waitUntil([&] { return !log.texts(LogLevel::warning).empty(); }));
  EXPECT_EQ(log.texts(LogLevel::warning), std::vector{closing(0, "the folder burns")});
}

TEST_F(EntitlementChangesTest, OfABurstAreLookedAtOnce) {
  serve({entitled});
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  const auto before = steady_clock::now();
  for (int i = 0; i < 100; ++i) change.wake();
  ASSERT_TRUE(awaitLooks(1));
  EXPECT_GE(steady_clock::now() - before, std::chrono::milliseconds(250));
  int looks = 0;
  notice.change([&] { looks = taken; });
  EXPECT_EQ(looks, 1);
  change.wake();
  EXPECT_TRUE(awaitLooks(2)) << "what changes later is looked at again";
}

TEST_F(EntitlementChangesTest, AreLookedAtWhileOthersConnect) {
  serve(std::vector<Dictionary>(1000, entitled));
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  entitle(0, {});
  change.wake();
  const auto deadline = steady_clock::now() + std::chrono::seconds(1);
  while (steady_clock::now() < deadline && connected < 900) RawClient other(path);
  EXPECT_TRUE(awaitLooks(1));
  client.awaitClosed();
}

}  // namespace
}  // namespace corvid
