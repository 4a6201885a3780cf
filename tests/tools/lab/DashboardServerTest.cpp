#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>
#include <stdexcept>
#include <vector>

#include "backends/dashboard/TagReportingPacket.h"
#include "base/Reading.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"
#include "tools/Arguments.h"
#include "tools/lab/DashboardServer.h"

namespace corvid::lab {
namespace {

using namespace std::chrono_literals;

std::string packet(std::uint16_t event, const Dictionary& payload = {}) {
  TagReportingPacketHeader header;
  header.eventID = event;
  header.sessionID = 42;
  return std::string(TagReportingPacket(header, &payload).datagram());
}

class DashboardServerTest : public testing::Test {
 protected:
  DashboardServerTest() {
    const timeval patience{20, 0};
    ::setsockopt(_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }

  void send(const std::string& datagram) {
    EXPECT_EQ(::send(_socket.get(), datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
  }
  std::string receive() {
    std::string datagram(2000, '\0');
    const ssize_t size = ::recv(_socket.get(), datagram.data(), datagram.size(), 0);
    datagram.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return datagram;
  }
  std::vector<Dictionary> entries(std::size_t count) {
    EXPECT_TRUE(_notice.await([&] { return _entries.size() >= count; }));
    std::vector<Dictionary> copy;
    _notice.change([&] { copy = _entries; });
    return copy;
  }

 private:
  Notice _notice;
  std::vector<Dictionary> _entries;

 protected:
  DashboardServer server{
      [this](const Dictionary& entry) { _notice.change([&] { _entries.push_back(entry); }); }};

 private:
  const Descriptor _socket = connectOnLoopback(server.port(), SOCK_DGRAM);
};

TEST_F(DashboardServerTest, AcknowledgesAPacketWithItsHeader) {
  const std::string sent = packet(258, {{"k", "v"}});
  send(sent);
  EXPECT_EQ(receive(), sent.substr(0, 64));
}

TEST_F(DashboardServerTest, HandsOnWhatStandsInIt) {
  send(packet(258, {{"k", "a=b"}, {"broken", "\xff"}}));
  const auto received = entries(1);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(*stringAt(received[0], "server"), "dashboard");
  const Dictionary* content = dictionaryAt(received[0], "packet");
  ASSERT_NE(content, nullptr);
  EXPECT_EQ(integerAt(*content, "eventID"), 258);
  EXPECT_EQ(integerAt(*content, "sessionID"), 42);
  EXPECT_EQ(*dictionaryAt(*content, "payload"),
            (Dictionary{{"k", "a=b"}, {"broken", "\xEF\xBF\xBD"}}));
  EXPECT_TRUE(booleanAt(received[0], "acknowledged"));
}

TEST_F(DashboardServerTest, DoesNotAcknowledgeWhatIsNoPacket) {
  send("nonsense");
  send(packet(2));
  EXPECT_EQ(receive(), packet(2)) << "the first got no answer";
  const auto received = entries(2);
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(*stringAt(received[0], "error"), "8 bytes are no packet");
}

TEST_F(DashboardServerTest, LosesPacketsAndAcknowledgements) {
  std::promise<std::string> lost;
  server.setLossObserver([&](const std::string& datagram) { lost.set_value(datagram); });
  server.setFaults({.drop = 1}, {}, 1);
  send(packet(1));
  EXPECT_EQ(lost.get_future().get(), packet(1));
  server.setFaults({}, {.drop = 1}, 1);
  send(packet(2));
  const auto arrived = entries(1);
  ASSERT_EQ(arrived.size(), 1u);
  EXPECT_FALSE(booleanAt(arrived[0], "acknowledged"));
  server.setFaults({}, {}, 1);
  send(packet(3));
  EXPECT_EQ(receive(), packet(3)) << "neither of the others was acknowledged";
  EXPECT_EQ(server.packetsReceived(), 2u);
}

TEST_F(DashboardServerTest, DoublesAndDelaysAcknowledgements) {
  server.setFaults({}, {.duplicate = 1}, 1);
  send(packet(1));
  EXPECT_EQ(receive(), packet(1));
  EXPECT_EQ(receive(), packet(1));
  server.setFaults({}, {.late = 1, .delay = 30ms}, 1);
  const auto start = std::chrono::steady_clock::now();
  send(packet(2));
  EXPECT_EQ(receive(), packet(2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST_F(DashboardServerTest, TellsTheFaultsThatItHasAsItTakesThem) {
  EXPECT_EQ(server.faults(), Dictionary());
  const Dictionary faults{{"packets", Dictionary{{"drop", 0.25}, {"late", 1.0}, {"delay", 1.5}}},
                          {"acknowledgements", Dictionary{{"corrupt", 0.5}}}};
  server.setFaults(faults);
  EXPECT_EQ(server.faults(), faults);
  server.setFaults(Dictionary{{"packets", Dictionary{{"reorder", 0.5}, {"duplicate", 0.0}}}});
  EXPECT_EQ(server.faults(), (Dictionary{{"packets", Dictionary{{"reorder", 0.5}}}}));
}

TEST_F(DashboardServerTest, TakesItsFaultsAsJSONDoes) {
  const auto failure = [&](Dictionary request) -> std::string {
    try {
      server.setFaults(request);
      return "set";
    } catch (const tools::InputError& error) {
      return error.what();
    }
  };
  EXPECT_EQ(
      failure({{"packets", Dictionary{{"drop", 0.5}, {"delay", 1}}},
               {"acknowledgements", Dictionary{{"duplicate", 1}, {"reorder", 0}, {"corrupt", 0}}},
               {"seed", 7}}),
      "set");
  EXPECT_EQ(failure({{"packets", 1}}), "\"packets\" takes an object");
  EXPECT_EQ(failure({{"packets", Dictionary{{"lose", 1}}}}), "a wire has no fault \"lose\"");
  EXPECT_EQ(failure({{"packets", Dictionary{{"drop", 2}}}}), "\"drop\" takes a number from 0 to 1");
  EXPECT_EQ(failure({{"acknowledgements", Dictionary{{"delay", -1}}}}),
            "\"delay\" takes seconds from 0 to 60");
  EXPECT_EQ(failure({}), "set") << "no more faults";
}

TEST_F(DashboardServerTest, APortInUseIsAnError) {
  EXPECT_THROW(DashboardServer([](const Dictionary&) {}, server.port()), std::runtime_error);
}

std::vector<std::string> passed(FaultyWire& wire, const std::string& datagram) {
  std::vector<std::string> out;
  for (const auto& passage : wire.pass(datagram, {})) out.push_back(passage.datagram);
  return out;
}
using Out = std::vector<std::string>;

TEST(FaultyWireTest, LetsEverythingThroughWithoutFaults) {
  FaultyWire wire;
  EXPECT_EQ(passed(wire, "a"), Out{"a"});
  EXPECT_EQ(passed(wire, ""), Out{""});
}

TEST(FaultyWireTest, EachFaultDoesWhatItSays) {
  FaultyWire dropping({.drop = 1});
  EXPECT_EQ(passed(dropping, "a"), Out{});
  FaultyWire doubling({.duplicate = 1});
  EXPECT_EQ(passed(doubling, "a"), (Out{"a", "a"}));
  FaultyWire damaging({.corrupt = 1});
  EXPECT_EQ(passed(damaging, "a"), Out{"q"});
  FaultyWire late({.late = 1, .delay = 5ms});
  EXPECT_EQ(late.pass("a", {})[0].delay, 5ms);
}

TEST(FaultyWireTest, AHeldBackDatagramComesAfterTheNext) {
  FaultyWire wire({.reorder = 1});
  EXPECT_EQ(passed(wire, "a"), Out{});
  EXPECT_EQ(passed(wire, "b"), (Out{"b", "a"}));
  EXPECT_EQ(passed(wire, "c"), Out{});
}

TEST(FaultyWireTest, TheSameSeedGivesTheSameFaults) {
  const WireFaults faults{.drop = 0.3, .duplicate = 0.3, .corrupt = 0.3, .reorder = 0.3};
  const auto run = [&](std::uint64_t seed) {
    FaultyWire wire(faults, seed);
    std::vector<Out> outs;
    for (int i = 0; i < 100; ++i) outs.push_back(passed(wire, std::to_string(i)));
    return outs;
  };
  EXPECT_EQ(run(5), run(5));
  EXPECT_NE(run(5), run(6));
}

TEST(FaultyWireTest, LosesAboutAsManyAsItSays) {
  FaultyWire wire({.drop = 0.3}, 3);
  int through = 0;
  for (int i = 0; i < 10'000; ++i) through += static_cast<int>(passed(wire, "x").size());
  EXPECT_NEAR(through, 7000, 200);
}

}  // namespace
}  // namespace corvid::lab
