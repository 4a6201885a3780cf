// How a dashboard backend is made.
#include <cerrno>

#include "protocol/Keys.h"
#include "tests/backends/dashboard/DashboardFixture.h"

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

class DashboardBackendTest : public DashboardFixture {};

Dictionary without(Dictionary profile, std::string_view key) {
  profile.erase(key);
  return profile;
}
Dictionary with(Dictionary profile, std::string key, Value value) {
  profile.set(std::move(key), std::move(value));
  return profile;
}

TEST_F(DashboardBackendTest, AProfileMakesAPlainBackendWithTheUsualPeriod) {
  ASSERT_TRUE(make(plainProfile()));
  EXPECT_EQ(network.periods, (std::vector{std::chrono::milliseconds(500)}));
  EXPECT_EQ(network.labels, Lines{"com.halcyon.Corvid.networkProc"});
  EXPECT_EQ(network.socket().peer, std::pair(0x7F000001u, std::uint16_t{4000}));
  send(1);
  EXPECT_EQ(lastHeader().flags, 0);
  EXPECT_EQ(backend->displayURL(), std::nullopt);
  EXPECT_EQ(errors(), Lines{});
}

TEST_F(DashboardBackendTest, AReliableProfileSaysSoInItsPackets) {
  ASSERT_TRUE(make(reliableProfile()));
  EXPECT_TRUE(network.socket().isBound);
  EXPECT_EQ(network.readSources(), 1u);
  send(1);
  EXPECT_EQ(lastHeader().flags, packetFlagReliable);
}

TEST_F(DashboardBackendTest, AnExplicitAddressIsReliableAndSaysBoth) {
  ASSERT_TRUE(makeExplicit("127.0.0.2", 9));
  EXPECT_EQ(network.socket().peer, std::pair(0x7F000002u, std::uint16_t{9}));
  EXPECT_EQ(network.periods, (std::vector{std::chrono::milliseconds(500)}));
  send(1);
  EXPECT_EQ(lastHeader().flags, packetFlagReliable | packetFlagExplicitAddress);
}

TEST_F(DashboardBackendTest, AProfileNeedsAServer) {
  EXPECT_FALSE(make(without(plainProfile(), "ip")));
  EXPECT_FALSE(make(with(plainProfile(), "ip", 5)));
  EXPECT_EQ(errors(), Lines(2, "DashboardBackend(initWithName): can't resolve server IP"));
  platform.log.clear();
  EXPECT_FALSE(make(without(plainProfile(), "port")));
  EXPECT_FALSE(make(with(plainProfile(), "port", Array{4000})));
  EXPECT_EQ(errors(), Lines(2, "DashboardBackend(initWithName): can't resolve server port"));
  EXPECT_TRUE(network.sockets.empty());
}

TEST_F(DashboardBackendTest, WithAProfileTheAddressArgumentsDoNotCount) {
  const Dictionary profile = plainProfile();
  ASSERT_TRUE(DashboardBackend::initWithName("dashboard", &profile, "9.9.9.9", 1, shared()));
  EXPECT_EQ(network.socket().peer, std::pair(0x7F000001u, std::uint16_t{4000}));
  const Dictionary empty;
  EXPECT_FALSE(DashboardBackend::initWithName("dashboard", &empty, "9.9.9.9", 1, shared()));
}

TEST_F(DashboardBackendTest, WithoutProfileAndAddressThereIsNone) {
  EXPECT_FALSE(DashboardBackend::initWithName("dashboard", nullptr, shared()));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(initWithName): initWitName with all null params."});
  EXPECT_FALSE(network.socket().isOpen);
  platform.log.clear();
  EXPECT_FALSE(DashboardBackend::initWithName("dashboard", std::nullopt, 1, shared()));
  EXPECT_EQ(errors(), Lines{});
  EXPECT_EQ(network.sockets.size(), 1u) << "no socket was opened for it";
}

TEST_F(DashboardBackendTest, WithoutASocketThereIsNone) {
  network.openError = EMFILE;
  EXPECT_FALSE(make(plainProfile()));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(initWithName): socket() failed (24)"});
}

TEST_F(DashboardBackendTest, AServerThatCannotBeConnectedToYieldsNone) {
  network.connectError = EACCES;
  EXPECT_FALSE(make(reliableProfile()));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(initWithName): socket connect() failed."});
  EXPECT_FALSE(network.socket().isOpen);
  EXPECT_EQ(network.timers() + network.readSources(), 0u);
}

TEST_F(DashboardBackendTest, WithoutATimerThereIsNone) {
  network.refusesTimers = true;
  EXPECT_FALSE(make(reliableProfile()));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(initWithName): can't create timer source."});
  EXPECT_FALSE(network.socket().isOpen);
  EXPECT_EQ(network.readSources(), 0u);
}

TEST_F(DashboardBackendTest, APortKeepsItsLow16Bits) {
  const auto portFor = [&](Value port) {
    return make(with(plainProfile(), "port", port)) ? network.socket().peer->second : -1;
  };
  EXPECT_EQ(portFor(70000), 4464);
  EXPECT_EQ(portFor(-1), 65535);
  EXPECT_EQ(portFor(4000.9), 4000);
  EXPECT_EQ(portFor("4000"), 4000);
  EXPECT_EQ(portFor(0), 0);
}

TEST_F(DashboardBackendTest, AnAddressThatIsNoneIsTheBroadcastAddress) {
  const auto addressFor = [&](const std::string& text) {
    EXPECT_TRUE(make(with(plainProfile(), "ip", text)));
    return network.socket().peer->first;
  };
  EXPECT_EQ(addressFor("127.0.0.1"), 0x7F000001u);
  EXPECT_EQ(addressFor("255.254.253.252"), 0xFFFEFDFCu);
  for (const char* text : {"localhost", "", "1.2.3.4.5", "256.1.1.1", "::1", "1.2.3.4x"})
    EXPECT_EQ(addressFor(text), 0xFFFFFFFFu) << text;
  EXPECT_EQ(addressFor("127.0.0.1\n or so, and more"), 0x7F000001u)
      << "as the classic parser has it";
  EXPECT_EQ(addressFor("192.168.100.2001"), 0xC0A864C8u) << "15 characters are looked at";
}

TEST_F(DashboardBackendTest, PeriodsAreMillisecondsWithinReason) {
  const auto periodFor = [&](Value reliable) {
    EXPECT_TRUE(make(with(plainProfile(), "reliable", reliable)));
    return network.periods.back().count();
  };
  EXPECT_EQ(periodFor(250), 250);
  EXPECT_EQ(periodFor("20"), 20);
  EXPECT_EQ(periodFor(0), 1) << "reliable all the same";
  EXPECT_TRUE(network.socket().isBound);
  EXPECT_EQ(periodFor(-5), 1);
  EXPECT_EQ(periodFor(INT64_MAX), 31'536'000'000) << "a year";
  EXPECT_EQ(periodFor(Array{}), 500) << "counts as absent";
  EXPECT_FALSE(network.socket().isBound);
}

TEST_F(DashboardBackendTest, TakesTheAddressesOfItsProfile) {
  ASSERT_TRUE(make(with(plainProfile(), "display_url", "https://dashboard.test")));
  EXPECT_EQ(backend->displayURL(), "https://dashboard.test");
  ASSERT_TRUE(make(with(plainProfile(), "display_url", 3)));
  EXPECT_EQ(backend->displayURL(), std::nullopt);
}

TEST_F(DashboardBackendTest, TheFactoryKnowsIt) {
  const Dictionary profile = plainProfile();
  const auto made =
      CorvidBackend::newBackendWithName(std::string(kCorvidBackendDashboard), &profile, shared());
  ASSERT_TRUE(std::dynamic_pointer_cast<DashboardBackend>(made));
  EXPECT_EQ(made->name(), "dashboard");
  EXPECT_EQ(made->identity().productFamily, "Robin");
  const Dictionary empty;
  EXPECT_FALSE(CorvidBackend::newBackendWithName("dashboard", &empty, shared()));
  EXPECT_EQ(errors(), Lines{"DashboardBackend(initWithName): can't resolve server IP"});
}

TEST_F(DashboardBackendTest, EventsOfClientsAreNotForIt) {
  ASSERT_TRUE(make(plainProfile()));
  const Dictionary payload{{"k", "v"}};
  EXPECT_EQ(backend->sendMessage(&payload, {}, 1, 2, MessageFlag{1}), std::nullopt);
  EXPECT_EQ(backend->sendMessage(&payload, {}, 1, 2, EventID{1}, MessageFlag{1}), std::nullopt);
  network.runTasks();
  EXPECT_EQ(network.socket().attempts, 0);
  backend->updateState();
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_FALSE(backend->uploadFileAtPath("/x", "token"));
}

}  // namespace
}  // namespace corvid
