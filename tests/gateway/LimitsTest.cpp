#include <fmt/format.h>
#include <unistd.h>

#include "gateway/Clients.h"
#include "gateway/http/AddressRange.h"
#include "gateway/http/Endpoint.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;
using LimitsTest = GatewayTest;

TEST_F(LimitsTest, OneAddressHasSoManyConnections) {
  inForce.settings.clientConnections = 2;
  start();
  Caller one(port);
  Caller other(port);
  one.send(request("/v1/events", onePost));
  other.send(request("/v1/events", onePost));
  EXPECT_EQ(one.answer()->status, 200);
  EXPECT_EQ(other.answer()->status, 200);
  Caller third(port);
  EXPECT_EQ(third.answer()->status, 429);
  EXPECT_TRUE(third.isClosed());
  EXPECT_EQ(gateway->balance().connectionsTurnedAway, 1u);
}

TEST_F(LimitsTest, APlaceIsFreeWhenAConnectionHasEnded) {
  inForce.settings.clientConnections = 1;
  start();
  { EXPECT_EQ(postEvents(onePost)->status, 200); }
  ASSERT_TRUE(waitUntil([&] { return gateway->balance().connections == 0; }));
  EXPECT_EQ(postEvents(onePost)->status, 200);
}

TEST_F(LimitsTest, AProxyHasAsManyAsAllTogether) {
  inForce.settings.clientConnections = 1;
  inForce.settings.connections = 3;
  inForce.proxies = {*AddressRange::parse("127.0.0.0/8")};
  start();
  std::vector<std::unique_ptr<Caller>> callers;
  for (int i = 0; i < 3; ++i) {
    callers.push_back(std::make_unique<Caller>(port));
    callers.back()->send(request("/v1/events", onePost));
    EXPECT_EQ(callers.back()->answer()->status, 200);
  }
  Caller fourth(port);
  EXPECT_TRUE(fourth.isClosed());
}

TEST_F(LimitsTest, AClientHasSoManyRequestsASecond) {
  inForce.settings.clientRequests = 1;  // and ten saved up
  start();
  int taken = 0;
  std::optional<Got> got;
  while ((got = postEvents(onePost)) && got->status == 200) ++taken;
  EXPECT_GE(taken, 10);
  EXPECT_LE(taken, 20);
  EXPECT_EQ(got->status, 429);
  EXPECT_EQ(got->body, "too many requests of this client\n");
}

TEST_F(LimitsTest, AClientHasSoManyBytesASecond) {
  inForce.settings.clientBytes = 1000;
  start();
  const std::string large = R"({"events":[]})" + std::string(20'000, ' ');
  EXPECT_EQ(postEvents(large)->status, 200) << "what it will cost is not known before";
  EXPECT_EQ(postEvents(large)->body, "too many bytes of this client\n");
}

TEST_F(LimitsTest, AClientHasSoMuchOfTheTime) {
  inForce.settings.clientTime = 1;
  start();
  const std::string blanks = gzip(R"({"events":[]})" + std::string(60'000'000, ' '));
  EXPECT_EQ(postEvents(blanks, {"Content-Encoding: gzip"})->status, 200);
  EXPECT_EQ(postEvents(onePost)->body, "the requests of this client take too much time\n");
}

TEST_F(LimitsTest, AClientHasSoManyRequestsAtOnce) {
  inForce.settings.clientExchanges = 1;
  log.setMode(FakeLog::Mode::silent);
  start();
  Caller one(port);
  one.send(request("/v1/events", onePost));
  ASSERT_TRUE(waitUntil([&] { return log.published() == 1; }));
  EXPECT_EQ(postEvents(onePost)->body, "too many requests of this client at once\n");
  log.setMode(FakeLog::Mode::stores);
  EXPECT_EQ(one.answer()->status, 200);
}

TEST_F(LimitsTest, AProxySaysWhoTheClientIs) {
  inForce.settings.clientBytes = 10;
  inForce.proxies = {*AddressRange::parse("127.0.0.1")};
  start();
  EXPECT_EQ(postEvents(onePost, {"X-Real-IP: 192.0.2.1"})->status, 200);
  EXPECT_EQ(postEvents(onePost, {"X-Real-IP: 192.0.2.1"})->status, 429);
  EXPECT_EQ(postEvents(onePost, {"X-Real-IP: 192.0.2.2"})->status, 200);
}

TEST_F(LimitsTest, NobodyElseSaysWhoTheClientIs) {
  inForce.settings.clientBytes = 10;
  inForce.proxies = {*AddressRange::parse("192.0.2.0/24")};
  start();
  EXPECT_EQ(postEvents(onePost, {"X-Real-IP: 192.0.2.1"})->status, 200);
  EXPECT_EQ(postEvents(onePost, {"X-Real-IP: 192.0.2.2"})->status, 429);
}

TEST(ClientsTest, ForgetsThoseWhoRest) {
  Clients clients;
  for (int i = 0; i < 1024; ++i) (void)clients.find(std::to_string(i));
  const auto kept = clients.find("kept");
  EXPECT_EQ(clients.size(), 1u);
  EXPECT_EQ(clients.find("kept"), kept);
}

TEST(ClientsTest, RemembersThoseWhoHaveHadMuch) {
  Clients clients;
  clients.find("busy")->spend({}, std::chrono::steady_clock::now(), 1 << 30, 0ns);
  for (int i = 0; i < 1024; ++i) (void)clients.find(std::to_string(i));
  EXPECT_TRUE(clients.find("busy")->beginExchange({}, std::chrono::steady_clock::now()));
}

TEST(ClientTest, EarnsAgainWhatItHad) {
  Client client;
  Settings settings;
  settings.clientBytes = 100;
  const auto now = std::chrono::steady_clock::now();
  client.spend(settings, now, 2000, 0ns);
  EXPECT_EQ(client.beginExchange(settings, now), Rule::clientBytes);
  EXPECT_EQ(client.beginExchange(settings, now + 9s), Rule::clientBytes);
  EXPECT_EQ(client.beginExchange(settings, now + 11s), std::nullopt);
}

boost::asio::ip::address address(const char* text) { return *addressFrom(text); }

TEST(AddressRangeTest, HoldsWhatBeginsWithTheSameBits) {
  const auto range = AddressRange::parse("10.1.128.0/17");
  ASSERT_TRUE(range);
  EXPECT_TRUE(range->holds(address("10.1.128.1")));
  EXPECT_TRUE(range->holds(address("10.1.255.255")));
  EXPECT_FALSE(range->holds(address("10.1.127.255")));
  EXPECT_FALSE(range->holds(address("::1")));
  EXPECT_TRUE(AddressRange::parse("0.0.0.0/0")->holds(address("203.0.113.9")));
  EXPECT_TRUE(AddressRange::parse("2001:db8::/32")->holds(address("2001:db8:1::1")));
  EXPECT_TRUE(AddressRange::parse("127.0.0.1")->holds(address("::ffff:127.0.0.1")));
}

TEST(AddressRangeTest, RefusesWhatIsNoRange) {
  for (const char* const text : {"", "a", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/-1", "::/129"})
    EXPECT_FALSE(AddressRange::parse(text)) << text;
}

TEST(AddressRangeTest, AHouseholdIsOneClient) {
  EXPECT_EQ(clientKey(address("2001:db8:0:1::1")), clientKey(address("2001:db8:0:1:ffff::2")));
  EXPECT_NE(clientKey(address("2001:db8:0:1::1")), clientKey(address("2001:db8:0:2::1")));
  EXPECT_NE(clientKey(address("192.0.2.1")), clientKey(address("192.0.2.2")));
}

TEST(EndpointTest, IsAnAddressAndAPort) {
  EXPECT_EQ(endpointFrom("127.0.0.1:80")->port(), 80);
  EXPECT_TRUE(endpointFrom("[::1]:0")->address().is_v6());
  for (const char* const text : {"", "80", ":80", "localhost:80", "::1:80", "127.0.0.1:65536"})
    EXPECT_FALSE(endpointFrom(text)) << text;
}

}  // namespace
}  // namespace corvid::fleet
