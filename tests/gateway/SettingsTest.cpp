#include <gtest/gtest.h>

#include "gateway/Settings.h"
#include "tests/support/Scratch.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;

TEST(SettingsTest, EachNameSetsItsField) {
  const auto read = parseSettings(
      "# a comment\n\n connections = 1\nclient-connections=2\r\nclient-exchanges = 3 # and another\n"
      "client-requests = 4\nclient-bytes = 5\nclient-time = 6\nidle-time = 7\nhead-time = 8\n"
      "body-time = 9\nbody-rate = 10\nfree-space = 0\nproxies = 127.0.0.1  10.0.0.0/8 ::1\n"
      "client-header = X-Client");
  ASSERT_TRUE(read) << read.failure().message;
  const Settings& settings = read.value();
  EXPECT_EQ(settings.connections, 1u);
  EXPECT_EQ(settings.clientConnections, 2u);
  EXPECT_EQ(settings.clientExchanges, 3u);
  EXPECT_EQ(settings.clientRequests, 4u);
  EXPECT_EQ(settings.clientBytes, 5u);
  EXPECT_EQ(settings.clientTime, 6u);
  EXPECT_EQ(settings.idleTime, 7ms);
  EXPECT_EQ(settings.headTime, 8ms);
  EXPECT_EQ(settings.bodyTime, 9ms);
  EXPECT_EQ(settings.bodyRate, 10u);
  EXPECT_EQ(settings.freeSpace, 0u);
  EXPECT_EQ(settings.proxies, (std::vector<std::string>{"127.0.0.1", "10.0.0.0/8", "::1"}));
  EXPECT_EQ(settings.clientHeader, "X-Client");
}

TEST(SettingsTest, TheFirstWrongLineIsNamed) {
  const auto failure = [](const char* text) {
    const auto read = parseSettings(text);
    return read ? std::string() : read.failure().message;
  };
  EXPECT_EQ(failure("connections = 1\nclient-byte = 5\n"),
            "line 2: client-byte: there is no such setting; \"client-bytes\" is meant?");
  EXPECT_EQ(failure("connections"), "line 1: lacks a \"=\"");
  EXPECT_EQ(failure("connections = 0"),
            "line 1: connections: takes a whole number from 1 to 1099511627776");
  EXPECT_EQ(failure("idle-time = 5s"), "line 1: idle-time: takes milliseconds from 1 to 3600000");
  EXPECT_EQ(failure("proxies = localhost"),
            "line 1: proxies: takes addresses and ADDRESS/BITS, separated by blanks");
  EXPECT_EQ(failure("client-header = a b"), "line 1: client-header: takes a header's name");
}

TEST(SettingsTest, AFileThatCannotBeReadIsNamed) {
  const ScratchFolder folder;
  EXPECT_EQ(readSettings(folder.path("none")).failure().message,
            folder.path("none") + " cannot be read");
  EXPECT_EQ(readSettings(folder.write("conf", "x")).failure().message,
            folder.path("conf") + ", line 1: lacks a \"=\"");
}

TEST(SettingsTest, TheExampleIsSound) {
  const auto read = readSettings(CORVID_EXAMPLE_SETTINGS);
  ASSERT_TRUE(read) << read.failure().message;
  EXPECT_EQ(read.value().proxies.size(), 2u);
}

}  // namespace
}  // namespace corvid::fleet
