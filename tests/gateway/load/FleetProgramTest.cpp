// The real corvid-fleet before a gateway whose log pretends.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <set>

#include "gateway/loader/PostReader.h"
#include "tests/gateway/GatewayFixture.h"
#include "tests/gateway/engines/ScratchNginx.h"
#include "tests/support/Loopback.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

using testing::HasSubstr;

class FleetProgramTest : public GatewayTest {
 protected:
  ToolResult play(std::vector<std::string> words) const {
    words.insert(words.begin(), fmt::format("http://127.0.0.1:{}/v1/events", port));
    return runTool(CORVID_FLEET_PROGRAM, words);
  }
  // The number before or behind these words.
  static std::size_t numberBehind(const std::string& text, const std::string& words) {
    const std::size_t at = text.find(words);
    return at == text.npos ? 0 : std::stoul(text.substr(at + words.size()));
  }
};

TEST_F(FleetProgramTest, EachDevicePostsNumberedEventsUnderItsOwnIdentifier) {
  start();
  const ToolResult result =
      play({"--devices", "20", "--rate", "100", "--events", "3", "--seconds", "1"});
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::size_t acknowledged = numberBehind(result.output, "200: ");
  EXPECT_GT(acknowledged, 20u);
  ASSERT_EQ(log.messages().size(), acknowledged) << result.output;
  std::map<std::string, std::set<std::int64_t>> numbers;
  for (const LogMessage& message : log.messages()) {
    const Post post = postFrom(message.body);
    ASSERT_EQ(post.events.size(), 3u);
    for (const PostedEvent& event : post.events) {
      EXPECT_EQ(event.method, 7);
      EXPECT_TRUE(numbers[post.client].insert(event.number.value_or(0)).second);
    }
  }
  EXPECT_EQ(numbers.size(), 20u);
  for (const auto& [client, each] : numbers) {
    EXPECT_EQ(*each.begin(), 1);
    EXPECT_EQ(*each.rbegin(), static_cast<std::int64_t>(each.size())) << "one is left out";
  }
}

TEST_F(FleetProgramTest, WrongBodiesAreRefusedAndOtherPostsAreNot) {
  start();
  const ToolResult result = play({"--devices", "10", "--rate", "200", "--events", "2", "--seconds",
                                  "2", "--wrong", "50", "--slow", "10"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_GT(numberBehind(result.output, "to wrong  400: "), 50u) << result.output;
  EXPECT_EQ(result.output.find("200:"), result.output.rfind("200:")) << result.output;
  EXPECT_EQ(numberBehind(result.output, "answers   200: "), log.messages().size());
}

TEST_F(FleetProgramTest, BreaksConnectionsAndSendsAgainWhatTheLogKnows) {
  start();
  const ToolResult result = play({"--devices", "10", "--rate", "200", "--events", "2", "--seconds",
                                  "2", "--dropped", "30", "--again", "50"});
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::size_t acknowledged = numberBehind(result.output, "answers   200: ");
  const std::size_t cut = numberBehind(result.output, "cut off: ");
  EXPECT_GT(numberBehind(result.output, "again     "), 20u) << result.output;
  EXPECT_GT(cut, 20u);
  EXPECT_TRUE(waitUntil([&] { return gateway->balance().held == 0; }));
  EXPECT_GE(log.messages().size(), acknowledged);
  EXPECT_LE(log.messages().size(), acknowledged + cut);
}

TEST_F(FleetProgramTest, SpeaksTLSAndTrustsOnlyWhomItIsTold) {
  const std::vector<std::uint16_t> ports = freePorts(1);
  ScratchNginx nginx(ports);
  options.listen = fmt::format("127.0.0.1:{}", ports[0]);
  start();
  std::vector<std::string> command{
      nginx.url("/v1/events"), "--devices", "5", "--seconds", "1", "--rate", "20"};
  const ToolResult stranger = runTool(CORVID_FLEET_PROGRAM, command);
  EXPECT_EQ(stranger.status, 1);
  EXPECT_THAT(stranger.output, HasSubstr("certificate verify failed"));
  command.insert(command.end(), {"--ca-file", nginx.caFile()});
  const ToolResult told = runTool(CORVID_FLEET_PROGRAM, command);
  EXPECT_EQ(told.status, 0) << told.output << told.errors;
  EXPECT_EQ(numberBehind(told.output, "answers   200: "), log.messages().size());
}

TEST_F(FleetProgramTest, SaysWhatIsWrongWithItsCommandLine) {
  const ToolResult none = runTool(CORVID_FLEET_PROGRAM, {});
  EXPECT_EQ(none.status, 64);
  const ToolResult ftp = runTool(CORVID_FLEET_PROGRAM, {"ftp://localhost:1/"});
  EXPECT_EQ(ftp.status, 1);
  EXPECT_EQ(ftp.errors, "corvid-fleet: \"ftp://localhost:1/\" is no address of http or https\n");
  const ToolResult nobody = runTool(
      CORVID_FLEET_PROGRAM,
      {fmt::format("http://127.0.0.1:{}/", freePorts(1)[0]), "--devices", "1", "--seconds", "1"});
  EXPECT_EQ(nobody.status, 1) << "nothing was acknowledged";
  EXPECT_THAT(nobody.output, HasSubstr("Connection refused"));
}

}  // namespace
}  // namespace corvid::fleet
