// A dashboard backend on the real network: threads that race, and no owner left.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backends/dashboard/DashboardBackend.h"
#include "base/Descriptor.h"
#include "platform/network/SystemNetwork.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;

// Sends every packet's header back, at once, from a thread of its own.
class EchoServer {
 public:
  EchoServer() {
    const timeval soon{0, 20'000};
    ::setsockopt(_bound.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon);
    _thread = std::jthread([this](std::stop_token stop) { serve(stop); });
  }

  std::uint16_t port() const { return _bound.port; }

  std::atomic<bool> isSilent = false;
  std::atomic<int> received = 0;

 private:
  void serve(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      char packet[2048];
      sockaddr_in from{};
      socklen_t size = sizeof from;
      auto* const peer = reinterpret_cast<sockaddr*>(&from);
      if (::recvfrom(_bound.socket.get(), packet, sizeof packet, 0, peer, &size) < 64) continue;
      ++received;
      if (!isSilent) ::sendto(_bound.socket.get(), packet, 64, 0, peer, size);
    }
  }

  const BoundSocket _bound = bindOnLoopback(SOCK_DGRAM);
  std::jthread _thread;
};

// A hundred times as fast as the system's.
class FastClock final : public Clock {
 public:
  TimeValue now() override { return {}; }
  TimePoint steadyNow() override {
    return TimePoint(100 * std::chrono::steady_clock::now().time_since_epoch());
  }
  std::chrono::nanoseconds sleepTowards(TimePoint deadline) override {
    return std::max<std::chrono::nanoseconds>((deadline - steadyNow()) / 100, 0ns);
  }
};

class DashboardThreadsTest : public testing::Test {
 protected:
  DashboardThreadsTest() {
    Platform::install(nullptr);
    Platform::Services services;
    services.clock = fakes.clock;
    services.random = fakes.random;
    services.http = fakes.http;
    services.network = network;
    platform.emplace(std::move(services));
    Platform::install(&*platform);
  }
  ~DashboardThreadsTest() override { Platform::install(nullptr); }

  // With this period in milliseconds of the fast clock. What delivers its packets lives as long as
  // an object in `deliveries`.
  std::shared_ptr<DashboardBackend> make(int period) {
    const Dictionary profile{{"ip", "127.0.0.1"}, {"port", server.port()}, {"reliable", period}};
    const auto kept = std::make_shared<int>();
    deliveries.push_back(kept);
    return DashboardBackend::initWithName(
        "dashboard", &profile, shared(), [this, kept](std::uint16_t, PacketFate fate) {
          ++(fate == PacketFate::acknowledged ? acknowledged : others);
        });
  }
  bool areAllGone() const {
    return std::ranges::all_of(deliveries, [](const auto& delivery) { return delivery.expired(); });
  }

  static std::size_t openDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
  }

  TestPlatform fakes;
  std::vector<std::weak_ptr<int>> deliveries;
  std::atomic<int> acknowledged = 0;
  std::atomic<int> others = 0;
  std::shared_ptr<SystemNetwork> network =
      std::make_shared<SystemNetwork>(std::make_shared<FastClock>());
  std::optional<Platform> platform;
  EchoServer server;
};

TEST_F(DashboardThreadsTest, CleanupRacesSendsAcknowledgementsAndTicks) {
  for (int round = 0; round < 40; ++round) {
    server.isSilent = round % 3 == 2;
    auto backend = make(100);
    ASSERT_TRUE(backend);
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 3; ++sender)
      senders.emplace_back([backend, sender] {
        const Dictionary payload{{"sender", sender}};
        for (int event = 0; event < 50; ++event)
          backend->packets().send(&payload, {}, 1, 2,
                                  EventID{static_cast<std::uint16_t>(sender * 50 + event)});
      });
    std::thread cleaner([backend] {
      for (int i = 0; i < 3; ++i) backend->cleanup();
    });
    backend.reset();
    for (auto& sender : senders) sender.join();
    cleaner.join();
    ASSERT_TRUE(waitUntil([&] { return areAllGone() && !network->isBusy(); })) << round;
  }
}

TEST_F(DashboardThreadsTest, TheLastResortRacesSendsTicksAndRequestsToCleanUp) {
  server.isSilent = true;
  const std::size_t before = openDescriptors();
  std::vector<std::shared_ptr<DashboardBackend>> backends;
  for (int i = 0; i < 5; ++i) {
    backends.push_back(make(500));
    ASSERT_TRUE(backends.back());
  }
  ASSERT_EQ(openDescriptors(), before + backends.size());
  for (const auto& backend : backends) {
    backend->packets().send(nullptr, {}, 1, 2, EventID{0});
    backend->cleanup();
  }
  std::vector<std::jthread> busy;
  for (int i = 0; i < 2; ++i)
    busy.emplace_back([backends](const std::stop_token& stop) {
      for (std::uint16_t event = 1; !stop.stop_requested(); ++event) {
        for (const auto& backend : backends) {
          backend->packets().send(nullptr, {}, 1, 2, EventID{event});
          backend->cleanup();
        }
        std::this_thread::sleep_for(1ms);  // leaves the other threads their turn
      }
    });
  EXPECT_TRUE(waitUntil([&] { return openDescriptors() == before; }))
      << "their queues never drain, yet their sockets are closed";
  backends.clear();
  busy.clear();
  EXPECT_TRUE(waitUntil([&] { return areAllGone(); }));
  EXPECT_TRUE(waitUntil([&] { return !network->isBusy(); }));
}

TEST_F(DashboardThreadsTest, BackendsLetGoWithoutCleanupGoAtOnceWhateverRuns) {
  for (int round = 0; round < 100; ++round) {
    auto backend = make(100);
    ASSERT_TRUE(backend);
    for (std::uint16_t event = 0; event < 20; ++event)
      backend->packets().send(nullptr, {}, 1, 2, EventID{event});
    backend.reset();
  }
  EXPECT_TRUE(waitUntil([&] { return areAllGone(); }));
  EXPECT_TRUE(waitUntil([&] { return !network->isBusy(); }));
}

TEST_F(DashboardThreadsTest, ANetworkThatEndsTakesDeliveriesWithIt) {
  server.isSilent = true;
  for (int i = 0; i < 10; ++i) {
    auto backend = make(10'000);
    ASSERT_TRUE(backend);
    backend->packets().send(nullptr, {}, 1, 2, EventID{1});
    backend->cleanup();
  }
  ASSERT_TRUE(waitUntil([&] { return server.received >= 10; }));
  platform.reset();
  network.reset();
  EXPECT_TRUE(areAllGone());
}

TEST_F(DashboardThreadsTest, EveryPacketIsAcknowledged) {
  auto backend = make(50'000);
  ASSERT_TRUE(backend);
  for (std::uint16_t event = 1; event <= 40; ++event)
    backend->packets().send(nullptr, {}, 1, 2, EventID{event});
  EXPECT_TRUE(waitUntil([&] { return acknowledged == 40; }));
  EXPECT_EQ(others, 0);
  EXPECT_TRUE(waitUntil([&] { return !network->isBusy(); }));
}

}  // namespace
}  // namespace corvid
