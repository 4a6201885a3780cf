// A gateway before a fake log, for tests that speak to it through sockets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <numeric>
#include <string>

#include "gateway/Gateway.h"
#include "tests/gateway/Caller.h"
#include "tests/gateway/fakes/FakeLog.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

class GatewayTest : public testing::Test {
 protected:
  GatewayTest() {
    options.listen = options.monitor = "127.0.0.1:0";
    options.uploads = folder.path("uploads");
    options.threads = 2;
    inForce.settings.freeSpace = 0;
  }
  ~GatewayTest() override {
    if (gateway) expectBalance();
  }

  void start() {
    gateway = std::make_unique<Gateway>(options, std::make_shared<InForce>(inForce), log);
    port = gateway->port();
  }
  std::optional<Got> postEvents(std::string_view body,
                                const std::vector<std::string>& headers = {}) {
    return post(port, "/v1/events", body, headers);
  }

  // received = acknowledged + refused + failed + held, and at rest nothing is held or has memory.
  void expectBalance() {
    const auto isAtRest = [&] {
      return gateway->balance().held == 0 && gateway->memoryUsed() == 0;
    };
    EXPECT_TRUE(waitUntil(isAtRest))
        << gateway->balance().held << " held, " << gateway->memoryUsed() << " bytes";
    const Ledger::Balance balance = gateway->balance();
    const auto sum = [](const auto& counts) {
      return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
    };
    EXPECT_EQ(sum(balance.received), sum(balance.acknowledged) + sum(balance.byRule));
  }
  std::uint64_t settled(Rule rule) const {
    return gateway->balance().byRule[static_cast<std::size_t>(rule)];
  }

  const ScratchFolder folder;
  FakeLog log;
  Options options;
  InForce inForce;
  std::unique_ptr<Gateway> gateway;
  std::uint16_t port = 0;
};

inline constexpr const char* onePost =
    R"({"postTime":1795255262.334619,"clientId":"DAE71BE7-ACC1-4DAE-8443-D4DC4A19B73C","events":[)"
    R"({"action":"play","position":12.5,"_startTS":1795255260,"_sender":"ZH","_method":7}]})";

}  // namespace corvid::fleet
