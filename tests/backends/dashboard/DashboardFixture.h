// A dashboard backend on a network without a wire.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backends/dashboard/DashboardBackend.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {

class DashboardFixture : public testing::Test {
 protected:
  using Fates = std::vector<std::pair<int, PacketFate>>;
  static constexpr const char* udid = "0123456789abcdef0123456789abcdef01234567";
  static constexpr std::chrono::milliseconds tick{500};

  static Dictionary plainProfile() { return {{"ip", "127.0.0.1"}, {"port", 4000}}; }
  static Dictionary reliableProfile() {
    Dictionary profile = plainProfile();
    profile.set("reliable", 500);
    return profile;
  }
  // Keeps what is made in `backend`.
  bool make(const Dictionary& profile) {
    return keep(
        DashboardBackend::initWithName("dashboard", &profile, shared(identity), observer()));
  }
  bool makeExplicit(const std::string& address = "127.0.0.1", std::uint16_t port = 4000) {
    return keep(
        DashboardBackend::initWithName("dashboard", address, port, shared(identity), observer()));
  }

  // Sends an event and lets it go out.
  std::string send(int event, const Dictionary& payload = {}) {
    const auto line = backend->packets().send(&payload, platform.clock->now(), 7, 2,
                                              EventID{static_cast<std::uint16_t>(event)});
    network.runTasks();
    return line.value_or("(none)");
  }
  void acknowledge(int event) {
    std::string datagram(62, '\0');
    datagram[60] = static_cast<char>(event >> 8);
    datagram[61] = static_cast<char>(event);
    network.deliver(datagram);
  }
  void advanceTicks(int ticks) { network.advance(ticks * tick); }

  std::size_t sent() { return network.socket().sent.size(); }
  std::vector<int> eventsSent() {
    std::vector<int> events;
    for (const std::string& datagram : network.socket().sent)
      events.push_back(readHeader(datagram).eventID);
    return events;
  }
  TagReportingPacketHeader lastHeader() { return readHeader(network.socket().sent.back()); }
  std::vector<std::string> errors() const { return platform.log.texts(LogLevel::error); }
  std::vector<std::string> debugLines() const { return platform.log.texts(LogLevel::debug); }

  Fates fates;  // in the order in which packets were let go; the platform's end may add some
  TestPlatform platform;
  FakeNetwork& network = *platform.network;
  BackendIdentity identity;  // of what is made next
  std::shared_ptr<DashboardBackend> backend;

 private:
  PacketObserver observer() {
    return [this](std::uint16_t event, PacketFate fate) { fates.emplace_back(event, fate); };
  }
  bool keep(std::shared_ptr<DashboardBackend> made) {
    backend = std::move(made);
    return backend != nullptr;
  }
};

}  // namespace corvid
