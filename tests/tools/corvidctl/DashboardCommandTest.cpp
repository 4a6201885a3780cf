// `corvidctl dashboard send` against a real server.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backends/dashboard/DashboardBackend.h"
#include "base/Reading.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"
#include "tools/corvidctl/Commands.h"
#include "tools/lab/DashboardServer.h"

namespace corvid {
namespace {

class DashboardCommandTest : public testing::Test {
 protected:
  ToolResult send(std::vector<std::string> more) {
    std::vector<std::string> arguments{
        "dashboard", "send", "--ip",        "127.0.0.1", "--port", std::to_string(server.port()),
        "--method",  "7",    "--resp-code", "2"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runTool(CORVIDCTL_PROGRAM, arguments);
  }
  Dictionary received() {
    std::lock_guard lock(_mutex);
    const Dictionary* packet = dictionaryAt(_entry, "packet");
    return packet ? *packet : Dictionary();
  }

 private:
  std::mutex _mutex;
  Dictionary _entry;

 protected:
  lab::DashboardServer server{[this](const Dictionary& entry) {
    std::lock_guard lock(_mutex);
    _entry = entry;
  }};
};

TEST_F(DashboardCommandTest, PrintsTheLogLineAndThenThatThePacketArrived) {
  const ToolResult result =
      send({"--payload", R"({"formula":"a=b","n":4,"when":{"$date":5}})", "--event-id", "258",
            "--session-id", "4294967295", "--client-type", "5", "--client-version", "3", "--udid",
            "0123456789abcdef0123456789abcdef01234567", "--seconds", "1700000000", "--microseconds",
            "999999"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(linesOf(result.output),
            (std::vector<std::string>{
                "1700000000.996 0123456789abcdef0123456789abcdef01234567 127.0.0.1 ZH     3 "
                "4294967295   258     7     2  n=4 formula=a\\=b when=null",
                "acknowledged"}));
  const Dictionary packet = received();
  EXPECT_EQ(integerAt(packet, "eventID"), 258);
  EXPECT_EQ(integerAt(packet, "method"), 7);
  EXPECT_EQ(integerAt(packet, "respCode"), 2);
  EXPECT_EQ(integerAt(packet, "flags"), 3);
  EXPECT_EQ(integerAt(packet, "sessionID"), 4294967295);
}

TEST_F(DashboardCommandTest, SaysThatNoAcknowledgementCame) {
  server.setFaults({}, {.drop = 1}, 1);
  ctl::PacketOptions packet;
  packet.ip = "127.0.0.1";
  packet.port = server.port();
  packet.method = 7;
  const auto clock = std::make_shared<FakeClock>();
  testing::internal::CaptureStdout();
  auto status =
      std::async(std::launch::async, [&] { return ctl::runDashboardCommand(packet, clock); });
  constexpr int ticks = 20;
  for (int i = 0; i < ticks && clock->awaitSleeper(DashboardBackend::defaultPeriod); ++i)
    clock->advance(DashboardBackend::defaultPeriod);
  EXPECT_EQ(status.get(), 2);
  const auto lines = linesOf(testing::internal::GetCapturedStdout());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "dropped: no acknowledgement came");
  (void)waitUntil([&] { return server.packetsReceived() >= 5; });  // the last is on its way
  EXPECT_EQ(server.packetsReceived(), 5u) << "after five transmissions";
}

TEST_F(DashboardCommandTest, RefusesWhatCannotBeMeant) {
  const auto expectUsageError = [](std::vector<std::string> options, const std::string& message) {
    options.insert(options.begin(), {"dashboard", "send"});
    const ToolResult result = runTool(CORVIDCTL_PROGRAM, options);
    EXPECT_EQ(result.status, 64) << result.errors;
    EXPECT_EQ(result.errors,
              "corvidctl: " + message + " (corvidctl dashboard send --help says more)\n");
  };
  expectUsageError({}, "--ip is required");
  expectUsageError({"--ip=127.0.0.1", "--method=1", "--resp-code=1"}, "--port is required");
  expectUsageError({"--ip=127.0.0.1", "--port=65536", "--method=1", "--resp-code=1"},
                   "--port: takes a whole number from 0 to 65535, not \"65536\"");
  expectUsageError({"--ip=127.0.0.1", "--port=1", "--method=1", "--resp-code=1", "--payload=[]"},
                   "--payload takes a JSON object");
  const ToolResult alone = runTool(CORVIDCTL_PROGRAM, {"dashboard"});
  EXPECT_EQ(alone.status, 64);
  EXPECT_EQ(alone.errors,
            "corvidctl: A subcommand is required (corvidctl dashboard --help says more)\n");
}

TEST_F(DashboardCommandTest, AnAddressThatIsNoneFails) {
  const ToolResult result = runTool(CORVIDCTL_PROGRAM, {"dashboard", "send", "--ip=localhost",
                                                        "--port=1", "--method=1", "--resp-code=1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.errors.find("DashboardBackend(initWithName): socket connect() failed."),
            std::string::npos);
  EXPECT_NE(result.errors.find("corvidctl: there is no way to send to localhost"),
            std::string::npos);
}

}  // namespace
}  // namespace corvid
