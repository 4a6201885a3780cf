#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "base/Reading.h"
#include "tests/gateway/Caller.h"
#include "tests/gateway/GatewayFixture.h"
#include "tests/support/Scratch.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

std::uint16_t numberBehind(const std::string& text, std::string_view words) {
  const std::size_t at = text.find(words);
  if (at == text.npos) return 0;
  const std::size_t from = at + words.size();
  return numberFrom<std::uint16_t>(
             text.substr(from, text.find_first_not_of("0123456789", from) - from))
      .value_or(0);
}

// The real program before a log that only pretends.
class ProgramTest : public testing::Test {
 protected:
  void start(std::vector<std::string> more = {}, const std::string& log = "fake:stores") {
    std::vector<std::string> command{
        CORVID_GATEWAY, "--listen", "127.0.0.1:0", "--monitor", "127.0.0.1:0",
        "--log-url",    log,        "--threads",   "2"};
    command.insert(command.end(), more.begin(), more.end());
    const std::string file = folder.write("log", "");
    const Descriptor errors(open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    process.emplace(ChildProcess::Program{.command = command,
                                          .streams = {STDIN_FILENO, STDOUT_FILENO, errors.get()}});
    ASSERT_TRUE(waitUntil([&] { return (port = numberBehind(said(), "Serving at port ")) != 0; }))
        << said();
  }
  std::string said() const { return contentOf(folder.path("log")); }
  // Waits until it holds a post.
  bool holdsOne() const {
    const std::uint16_t monitor = numberBehind(said(), "monitors at port ");
    return waitUntil([&] {
      return get(monitor, "/metrics")->body.find("corvid_gateway_held 1\n") != std::string::npos;
    });
  }
  bool awaitLine(std::string_view words) const {
    return waitUntil([&] { return said().find(words) != std::string::npos; });
  }

  const ScratchFolder folder;
  std::optional<ChildProcess> process;
  std::uint16_t port = 0;
};

TEST_F(ProgramTest, ServesUntilItIsToldToStopAndExitsWithZero) {
  start();
  EXPECT_EQ(post(port, "/v1/events", onePost)->status, 200);
  process->signal(SIGTERM);
  EXPECT_EQ(process->waitForExit(), 0);
}

TEST_F(ProgramTest, FinishesWhatItHasReadAtSIGTERM) {
  start({"--hold", "1s"}, "fake:silent");
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(holdsOne());
  process->signal(SIGTERM);
  EXPECT_EQ(caller.answer()->status, 503) << "the log never answers";
  EXPECT_TRUE(caller.isClosed());
  EXPECT_EQ(process->waitForExit(), 0);
}

TEST_F(ProgramTest, DoesNotWaitLongerThanItMay) {
  start({"--stop-timeout", "0"}, "fake:silent");
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  ASSERT_TRUE(holdsOne());
  process->signal(SIGTERM);
  EXPECT_EQ(process->waitForExit(), 1);
  EXPECT_NE(said().find("Stopped with 1 requests unanswered"), std::string::npos) << said();
}

TEST_F(ProgramTest, ReadsItsLimitsAgainAtSIGHUP) {
  const std::string file = folder.write("conf", "client-bytes = 10\n");
  start({"--config", file});
  EXPECT_EQ(post(port, "/v1/events", onePost)->status, 200);
  EXPECT_EQ(post(port, "/v1/events", onePost)->status, 429);
  folder.write("conf", "client-header = X-Client\nproxies = 127.0.0.1\n");
  process->signal(SIGHUP);
  ASSERT_TRUE(awaitLine("reload: What the files say is in force"));
  EXPECT_TRUE(waitUntil(
      [&] { return post(port, "/v1/events", onePost, {"X-Client: 192.0.2.7"})->status == 200; }));
}

TEST_F(ProgramTest, AWrongFileLeavesWhatWasInForce) {
  const std::string file = folder.write("conf", "client-bytes = 10\n");
  start({"--config", file});
  folder.write("conf", "client-bytes = many\n");
  process->signal(SIGHUP);
  ASSERT_TRUE(awaitLine("error: reload: " + file +
                        ", line 1: client-bytes: takes a whole number from 1 to 1099511627776; "
                        "keeping what was in force"));
  EXPECT_EQ(post(port, "/v1/events", onePost)->status, 200);
  EXPECT_EQ(post(port, "/v1/events", onePost)->status, 429);
}

TEST(CheckConfigTest, SaysWhatIsWrongAndChangesNothing) {
  const ScratchFolder folder;
  const std::string file = folder.write("conf", "nothing\n");
  const ToolResult wrong = runTool(CORVID_GATEWAY, {"--check-config", "--config", file, "--uploads",
                                                    folder.path("none"), "--log-url", "no:log"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.output, "WRONG " + file + ", line 1: lacks a \"=\"\nWRONG " +
                              folder.path("none") +
                              " is no folder\nWRONG --log-url: \"no:log\" is no fake log\n");
  const ToolResult sound = runTool(CORVID_GATEWAY, {"--check-config", "--log-url", "fake:stores"});
  EXPECT_EQ(sound.status, 0);
  EXPECT_EQ(sound.output, "ok\n");
}

TEST(CheckConfigTest, TheLogIsThatOfTheEnvironmentUnlessAnOptionNamesOne) {
  const auto check = [](std::vector<std::string> arguments) {
    return runTool("env", std::move(arguments)).output;
  };
  EXPECT_EQ(check({"CORVID_LOG_URL=no:log", CORVID_GATEWAY, "--check-config"}),
            "WRONG --log-url: \"no:log\" is no fake log\n");
  EXPECT_EQ(check({"CORVID_LOG_URL=no:log", CORVID_GATEWAY, "--check-config", "--log-url",
                   "fake:stores"}),
            "ok\n");
}

TEST(UsageTest, AWrongCommandLineEndsTheProgramWithOneLine) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> wrong{
      {{"--hold", "soon"}, "--hold: takes seconds from 0 to 3600, such as 20s, not \"soon\""},
      {{"--when-full", "500"}, "--when-full: takes 503|429, not \"500\""},
      {{"--listen", "here"},
       "--listen: takes ADDRESS:PORT, an IPv6 address in brackets, not \"here\""},
      {{"--memory", "1"}, "--memory: takes a whole number from 16 to 1048576, not \"1\""},
      {{"--certificate", "a.pem"}, "--certificate requires --key"},
      {{"--lissen", "a"}, "unknown option --lissen"},
  };
  for (const auto& [arguments, line] : wrong) {
    const ToolResult result = runTool(CORVID_GATEWAY, arguments);
    EXPECT_EQ(result.status, 64);
    EXPECT_EQ(result.errors, "corvid-gateway: " + line + " (corvid-gateway --help says more)\n");
  }
}

TEST(UsageTest, AnAddressThatIsTakenEndsTheProgramWithOneLine) {
  const ToolResult result =
      runTool(CORVID_GATEWAY, {"--listen", "192.0.2.1:1", "--log-url", "fake:stores"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors,
            "corvid-gateway: cannot listen at 192.0.2.1:1: Cannot assign requested address\n");
}

}  // namespace
}  // namespace corvid::fleet
