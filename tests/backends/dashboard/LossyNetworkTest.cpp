// Packets over real sockets to a server that loses them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "backends/dashboard/DashboardBackend.h"
#include "backends/dashboard/TagReportingPacket.h"
#include "base/Reading.h"
#include "platform/network/SystemNetwork.h"
#include "platform/system/SystemClock.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Waiting.h"
#include "tools/lab/DashboardServer.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t packets = 40;  // no more than may wait, so that none is pushed out
constexpr int transmissions = 5;

// What became of each packet, by its number, on both sides.
struct Outcome {
  std::map<int, int> arrived;
  std::map<int, int> lost;
  std::map<int, PacketFate> fates;

  int reachedTheServer(int event) const {
    const auto at = [&](const std::map<int, int>& counts) {
      const auto found = counts.find(event);
      return found == counts.end() ? 0 : found->second;
    };
    return at(arrived) + at(lost);
  }
  bool hasAllFates() const { return fates.size() == packets; }
  // The server may see the last of a packet after its sender has given it up.
  bool isComplete() const {
    return hasAllFates() && std::ranges::all_of(fates, [&](const auto& fate) {
             return fate.second == PacketFate::acknowledged ||
                    reachedTheServer(fate.first) == transmissions;
           });
  }
};

class LossyNetworkFixture {
 protected:
  LossyNetworkFixture() {
    Platform::Services services;
    services.clock = fakes.clock;
    services.random = fakes.random;
    services.network = std::make_shared<SystemNetwork>(std::make_shared<SystemClock>());
    platform.emplace(std::move(services));
    Platform::install(&*platform);
  }
  ~LossyNetworkFixture() { Platform::install(nullptr); }

  Outcome sendAll(const lab::WireFaults& there, const lab::WireFaults& back,
                  bool (Outcome::*isOver)() const) {
    Outcome outcome;
    std::mutex mutex;
    lab::DashboardServer server([&](const Dictionary& entry) {
      std::lock_guard lock(mutex);
      if (const Dictionary* packet = dictionaryAt(entry, "packet"))
        ++outcome.arrived[static_cast<int>(*integerAt(*packet, "eventID"))];
    });
    server.setLossObserver([&](const std::string& datagram) {
      std::lock_guard lock(mutex);
      ++outcome.lost[readHeader(datagram).eventID];
    });
    server.setFaults(there, back, 20);
    const Dictionary profile{{"ip", "127.0.0.1"}, {"port", server.port()}, {"reliable", 25}};
    const auto backend = DashboardBackend::initWithName("dashboard", &profile, shared(),
                                                        [&](std::uint16_t event, PacketFate fate) {
                                                          std::lock_guard lock(mutex);
                                                          outcome.fates[event] = fate;
                                                        });
    if (!backend) return outcome;
    for (std::uint16_t event = 1; event <= packets; ++event)
      backend->packets().send(nullptr, {}, 1, 2, EventID{event});
    EXPECT_TRUE(waitUntil([&] {
      std::lock_guard lock(mutex);
      return (outcome.*isOver)();
    }));
    std::lock_guard lock(mutex);
    return outcome;
  }

  TestPlatform fakes;
  std::optional<Platform> platform;
};

class LossyNetworkTest : public LossyNetworkFixture, public testing::TestWithParam<int> {};
class LossyNetworkFaultsTest : public LossyNetworkFixture, public testing::Test {};

TEST_P(LossyNetworkTest, EveryPacketArrivesWhileItsFiveTransmissionsAllowIt) {
  const double loss = GetParam() / 100.0;
  const Outcome outcome = sendAll({.drop = loss}, {.drop = loss}, &Outcome::isComplete);
  ASSERT_EQ(outcome.fates.size(), packets) << "each came to an end";
  int acknowledged = 0;
  int sent = 0;
  int arrived = 0;
  for (int event = 1; event <= packets; ++event) {
    const bool hasArrived = outcome.arrived.contains(event);
    const int reached = outcome.reachedTheServer(event);
    const bool wasAcknowledged = outcome.fates.at(event) == PacketFate::acknowledged;
    EXPECT_LE(reached, transmissions) << event;
    EXPECT_TRUE(hasArrived || reached == transmissions) << event << " was not given its chances";
    if (wasAcknowledged)
      EXPECT_TRUE(hasArrived) << event;
    else
      EXPECT_EQ(reached, transmissions) << event << " was given up too early";
    acknowledged += wasAcknowledged;
    arrived += hasArrived;
    sent += reached;
  }
  if (GetParam() == 0) {
    EXPECT_EQ(acknowledged, packets);
    EXPECT_EQ(arrived, packets);
  }
  std::printf("loss %d %% each way: %d packets, %d transmissions, %d arrived, %d acknowledged\n",
              GetParam(), packets, sent, arrived, acknowledged);
}

INSTANTIATE_TEST_SUITE_P(Loss, LossyNetworkTest, testing::Values(0, 10, 30, 50),
                         [](const auto& test) { return std::to_string(test.param) + "Percent"; });

TEST_F(LossyNetworkFaultsTest, EverythingAtOnceStillComesToAnEnd) {
  const lab::WireFaults faults{
      .drop = 0.2, .duplicate = 0.3, .corrupt = 0.2, .reorder = 0.3, .late = 0.3, .delay = 40ms};
  const Outcome outcome = sendAll(faults, faults, &Outcome::hasAllFates);
  EXPECT_EQ(outcome.fates.size(), packets);
}

}  // namespace
}  // namespace corvid
