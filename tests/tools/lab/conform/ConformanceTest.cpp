// The lab's own servers as a collector, and the command that tries collectors.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "base/Reading.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"
#include "tests/tools/lab/conform/CannedServer.h"
#include "tools/lab/Lab.h"
#include "tools/lab/conform/Conformance.h"

namespace corvid::lab::conform {
namespace {

constexpr const char* labPaths = "events=/events,realtime=/realtime,uploads=/upload,logs=/logData";

class ConformanceTest : public testing::Test {
 protected:
  std::string url() const {
    const std::string events = *stringAt(lab.addresses(), "events");
    return events.substr(0, events.rfind('/'));
  }
  ToolResult conform(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "--conform");
    return runTool(CORVID_LAB_PROGRAM, std::move(arguments));
  }

  ScratchLab root;
  Lab lab{root.path()};
  const std::string ca = root.path("lab/tls/ca.pem");
};

TEST_F(ConformanceTest, TheLabConforms) {
  std::vector<std::string> broken;
  const Summary summary = tryCollector(collectorAt(url(), labPaths, ca), [&](const Finding& found) {
    if (found.kind != Finding::Kind::ok) broken.push_back(found.line);
  });
  EXPECT_EQ(broken, std::vector<std::string>());
  EXPECT_EQ(summary.ok, allChecks().size());
}

TEST_F(ConformanceTest, TheCommandPrintsALineForEachCheckAndASummary) {
  const ToolResult result = conform({url(), "--paths", "events=/events,logs=/logData", "--ca", ca});
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  const std::vector<std::string> lines = linesOf(result.output);
  ASSERT_EQ(lines.size(), allChecks().size() + 1);
  EXPECT_EQ(lines[0], "ok      plainPost       a plain post is taken");
  EXPECT_EQ(lines[2],
            "n/a     realtimePost    a realtime post is taken: there is no address for realtime");
  EXPECT_EQ(lines.back().find(
                fmt::format("{} checks: {} ok, 0 broken, 7 not applicable; client identifier ",
                            allChecks().size(), allChecks().size() - 7)),
            0u)
      << lines.back();
}

TEST_F(ConformanceTest, TheCommandFailsWhereARuleIsBroken) {
  const CannedServer server([](const CannedServer::Request&) { return canned(400, "never\n"); });
  const ToolResult result = conform({server.url(), "--paths", "events=/"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(linesOf(result.output).at(0),
            "broken  plainPost       a plain post is taken; sent: a post of one event, plain; "
            "answered: 400 \"never\"");
}

TEST_F(ConformanceTest, ACollectorThatCannotBeReachedIsSaidOnce) {
  const ToolResult untrusted = conform({url(), "--paths", labPaths});
  EXPECT_EQ(untrusted.status, 1);
  EXPECT_EQ(untrusted.output, "");
  EXPECT_EQ(untrusted.errors,
            "corvid-lab: the collector's TLS cannot be used: certificate verify failed\n");
  EXPECT_EQ(conform({"http://127.0.0.1:1"}).errors,
            "corvid-lab: cannot connect to 127.0.0.1:1: Connection refused\n");
  EXPECT_EQ(conform({url(), "--ca", "/nonexistent"}).status, 1);
}

TEST_F(ConformanceTest, TheCertificateIsOfTheHost) {
  Collector collector = collectorAt(url(), labPaths, ca);
  collector.host = "127.0.0.2";
  EXPECT_THROW(tryCollector(collector, [](const Finding&) {}), std::runtime_error);
}

TEST_F(ConformanceTest, WrongUsesAreNamed) {
  const auto expectUsage = [&](std::vector<std::string> arguments, const std::string& line) {
    const ToolResult result = runTool(CORVID_LAB_PROGRAM, std::move(arguments));
    EXPECT_EQ(result.status, 64);
    EXPECT_EQ(result.errors, "corvid-lab: " + line + " (corvid-lab --help says more)\n");
  };
  expectUsage({"--conform", "here"},
              "--conform: a collector's URL begins with http:// or https://, as \"here\" does not");
  expectUsage({"--conform", "http://a", "--paths", "logs=/"},
              "--conform: a collector has a path for events");
  expectUsage({"--conform", "http://a", "--root", root.path()}, "--root excludes --conform");
  expectUsage({"--ca", "a.pem", "--root", root.path()}, "--ca requires --conform");
}

TEST(CompletionTest, NamesTheOptions) {
  for (const char* const shell : {"bash", "zsh", "fish"}) {
    const ToolResult result = runTool(CORVID_LAB_PROGRAM, {"completion", shell});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("conform"), std::string::npos) << shell;
  }
}

}  // namespace
}  // namespace corvid::lab::conform
