// The gateway as corvid-lab --conform tries any collector.
#include <fmt/format.h>

#include "tests/gateway/GatewayFixture.h"
#include "tools/lab/conform/Conformance.h"

namespace corvid::fleet {
namespace {

namespace conform = lab::conform;

class ConformanceTest : public GatewayTest {
 protected:
  std::vector<std::string> faults(std::string_view paths = {}) {
    std::vector<std::string> lines;
    const std::string url = fmt::format("http://127.0.0.1:{}", port);
    (void)conform::tryCollector(conform::collectorAt(url, paths),
                                [&](const conform::Finding& found) {
                                  if (found.kind != conform::Finding::Kind::ok)
                                    lines.push_back(found.line);
                                });
    return lines;
  }
};

TEST_F(ConformanceTest, EveryRuleIsKeptWithTheLimitsThatHoldByThemselves) {
  start();
  EXPECT_EQ(faults(), std::vector<std::string>());
  EXPECT_EQ(settled(Rule::clientTime), 0u);
}

TEST_F(ConformanceTest, ALogThatRefusesIsFoundOut) {
  log.setMode(FakeLog::Mode::refuses);
  start();
  const std::vector<std::string> lines = faults("events=/v1/events");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            "broken  plainPost       a plain post is taken; sent: a post of one event, plain; "
            "answered: 422 \"the log does not take this message\"");
}

}  // namespace
}  // namespace corvid::fleet
