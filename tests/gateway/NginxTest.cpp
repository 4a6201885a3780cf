// A gateway behind nginx, with the configuration that is shipped as an example.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "tests/gateway/GatewayFixture.h"
#include "tests/gateway/engines/ScratchNginx.h"
#include "tests/support/Loopback.h"
#include "tests/support/ToolProcess.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

// The gateway that tests look at, and beside it one that is not there.
class NginxTest : public GatewayTest {
 protected:
  NginxTest() {
    // First, so that it does not inherit the gateway's sockets.
    const std::vector<std::uint16_t> ports = freePorts(2);
    nginx.emplace(ports);
    options.listen = fmt::format("127.0.0.1:{}", ports[1]);
    inForce.proxies = {*AddressRange::parse("127.0.0.1")};
    start();
  }

  // The status of a device's post, as curl makes it: "200 2" over HTTP/2.
  std::string posted(const std::string& path, const std::string& file,
                     std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments{"-s",
                                       "--cacert",
                                       nginx->caFile(),
                                       "-o",
                                       "/dev/null",
                                       "-w",
                                       "%{http_code} %{http_version}",
                                       "--data-binary",
                                       "@" + file,
                                       nginx->url(path)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runTool("curl", arguments).output;
  }
  std::string file(std::string_view content) const { return folder.write("sent", content); }

  std::optional<ScratchNginx> nginx;
};

TEST_F(NginxTest, PassesPostsOnPastAGatewayThatIsGone) {
  const std::string body = file(onePost);
  for (const char* const path : {"/v1/events", "/v1/realtime"}) {
    EXPECT_EQ(posted(path, body), "200 2");
    EXPECT_EQ(posted(path, body, {"--http1.1"}), "200 1.1");
  }
  // The log knows it again.
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].body, onePost);
}

TEST_F(NginxTest, PassesTheGatewaysAnswersOn) {
  EXPECT_EQ(posted("/v1/events", file("{}")), "400 2");
  EXPECT_EQ(posted("/elsewhere", file(onePost)), "404 2");
}

TEST_F(NginxTest, SaysWhoTheClientIsWhateverItSays) {
  inForce.settings.clientBytes = 1;
  gateway->setInForce(std::make_shared<InForce>(inForce));
  const std::string body = file(std::string(onePost) + std::string(20, ' '));
  EXPECT_EQ(posted("/v1/events", body, {"-H", "X-Real-IP: 192.0.2.1"}), "200 2");
  EXPECT_EQ(posted("/v1/events", body, {"-H", "X-Real-IP: 192.0.2.2"}), "429 2");
}

TEST_F(NginxTest, TakesFilesThatAreLargerThanPosts) {
  std::mt19937 random;
  std::string content(9'000'000, '\0');
  std::ranges::generate(content, [&] { return static_cast<char>(random()); });
  const std::string large = file(gzip(content));
  EXPECT_EQ(posted("/v1/events", large).substr(0, 3), "413");
  EXPECT_EQ(posted("/v1/uploads?uuid=D&sequence=1&filename=a.gz", large), "200 2");
}

// Over HTTP/2 it closes connections on which nothing is under way, also those whose first post is
// on its way.
TEST_F(NginxTest, AnswersEachPostOverHTTP1WhileItReadsItsConfigurationAgain) {
  const std::string body = file(onePost);
  for (int round = 0; round < 5; ++round) {
    nginx->reload();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(posted("/v1/events", body, {"--http1.1"}), "200 1.1");
  }
  EXPECT_TRUE(nginx->isRunning()) << nginx->lastWords();
}

TEST_F(NginxTest, SaysThatNoGatewayIsThere) {
  const std::string body = file(onePost);
  gateway.reset();
  EXPECT_THAT(posted("/v1/events", body), testing::AnyOf("502 2", "504 2"));
}

}  // namespace
}  // namespace corvid::fleet
