// The program itself, from its command line to its exit status.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"
#include "tests/tools/lab/Peer.h"

namespace corvid::lab {
namespace {

ToolResult runLab(std::vector<std::string> arguments) {
  return runTool(CORVID_LAB_PROGRAM, std::move(arguments));
}

void expectUsageError(std::vector<std::string> arguments, const std::string& message) {
  const ToolResult result = runLab(std::move(arguments));
  EXPECT_EQ(result.status, 64) << message;
  EXPECT_EQ(result.errors, "corvid-lab: " + message + " (corvid-lab --help says more)\n");
  EXPECT_EQ(result.output, "");
}

class LabProgram : public testing::Test {
 protected:
  // Starts a lab and reads its addresses.
  void start(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"--root", root.path()});
    process.emplace(CORVID_LAB_PROGRAM, std::move(options));
    const auto line = process->readLine();
    ASSERT_TRUE(line) << process->errors();
    const Result<Value> parsed = parseJSON(*line);
    ASSERT_TRUE(parsed && parsed.value().dictionary()) << *line;
    addresses = *parsed.value().dictionary();
  }
  std::string address(std::string_view server) const { return *stringAt(addresses, server); }
  std::optional<int> end(int signal) {
    kill(process->pid(), signal);
    return process->finish();
  }

  ScratchLab root;
  std::optional<ToolProcess> process;
  Dictionary addresses;
};

TEST_F(LabProgram, PrintsItsAddressesInOneLineAndServes) {
  start();
  Peer peer(root.path("lab/tls/ca.pem"));
  EXPECT_EQ(peer.get(address("storebags") + "/bags/birch/lumen").status, 200);
  EXPECT_EQ(peer.post(address("events"), R"({"events":[]})").status, 200);
  EXPECT_EQ(peer.post(address("realtime"), R"({"events":[]})").status, 200);
  EXPECT_EQ(Peer("").post(address("control"), R"({"server":"events","status":503})").status, 200);
  EXPECT_EQ(peer.post(address("events"), R"({"events":[]})").status, 503);
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_EQ(process->output() + process->errors(), "");
}

TEST_F(LabProgram, RefusesTheMachinesOwnRoot) {
  const std::string link = root.path("link");
  std::filesystem::create_symlink("/", link);
  for (const std::string& machine :
       {std::string("/"), std::string("//"), std::string("/tmp/.."), link})
    expectUsageError({"--root", machine},
                     "--root: takes a folder of its own, not the machine's root");
}

TEST_F(LabProgram, AnInterruptEndsItAsWell) {
  start();
  EXPECT_EQ(end(SIGINT), 0);
}

TEST_F(LabProgram, ListensWhereItIsTold) {
  start();
  const std::string before = address("storebags");
  ASSERT_EQ(end(SIGTERM), 0);
  const std::string port = before.substr(before.rfind(':') + 1);
  start({"--storebag-port=" + port, "--max-age", "7"});
  EXPECT_EQ(address("storebags"), before);
  EXPECT_NE(Peer(root.path("lab/tls/ca.pem"))
                .get(before + "/bags/birch/lumen")
                .head.find("Cache-Control: max-age=7\r\n"),
            std::string::npos);
}

TEST_F(LabProgram, ThePageIsServedWhereItIsWantedOnly) {
  start();
  EXPECT_FALSE(addresses.contains("web"));
  ASSERT_EQ(end(SIGTERM), 0);
  start({"--web"});
  const std::string page = address("web");
  EXPECT_EQ(Peer("").get(page).status, 200);
  ASSERT_EQ(end(SIGTERM), 0);
  const std::string port = page.substr(page.rfind(':') + 1, page.size() - page.rfind(':') - 2);
  start({"--web-port", port});
  EXPECT_EQ(address("web"), page);
  EXPECT_EQ(Peer("").get(page).status, 200);
}

TEST_F(LabProgram, ShowPrintsWhatWasReceived) {
  start();
  Peer peer(root.path("lab/tls/ca.pem"));
  peer.post(address("events"), R"({"events":[{"_method":7,"action":"play"}]})");
  peer.post(address("realtime"), "nonsense");
  ASSERT_EQ(end(SIGTERM), 0);
  const ToolResult shown = runLab({"--root", root.path(), "--show"});
  EXPECT_EQ(shown.status, 0) << shown.errors;
  EXPECT_EQ(shown.output,
            "events received 42 bytes, from sender -\n    event - method 7 status -: action=play\n"
            "realtime received 8 bytes, from sender -\n"
            "    error: the body is not JSON: Invalid value at byte 1\n");
}

TEST_F(LabProgram, ShowSaysWhereThereIsNothing) {
  const ToolResult shown = runLab({"--show", "--root", root.path()});
  EXPECT_EQ(shown.status, 1);
  EXPECT_EQ(shown.errors, "corvid-lab: " + root.path() + " holds nothing that a lab received\n");
}

TEST_F(LabProgram, ARootThatCannotBeUsedIsNamed) {
  root.write("file", "x");
  const ToolResult result = runLab({"--root", root.path("file")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "corvid-lab: cannot make the folder " + root.path("file/lab/tls") +
                               ": Not a directory\n");
  EXPECT_EQ(result.output, "");
}

TEST_F(LabProgram, ASecondLabOfOneRootAndAPortInUseAreNamed) {
  start();
  EXPECT_EQ(runLab({"--root", root.path()}).errors,
            "corvid-lab: another lab serves " + root.path() + "\n");
  const ScratchLab other;
  const std::string storebags = address("storebags");
  const std::string port = storebags.substr(storebags.rfind(':') + 1);
  const ToolResult second = runLab({"--root", other.path(), "--control-port", port});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.errors,
            "corvid-lab: cannot listen on 127.0.0.1 port " + port + ": Address already in use\n");
}

TEST_F(LabProgram, HelpNamesEveryOption) {
  const ToolResult help = runLab({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* option : {"--root", "--storebag-port", "--report-port", "--control-port",
                             "--dashboard-port", "--max-age", "--web", "--web-port", "--show",
                             "--conform", "--paths", "--ca", "completion", "Exit status"})
    EXPECT_NE(help.output.find(option), std::string::npos) << option;
  EXPECT_EQ(runLab({"help"}).output, help.output);
  EXPECT_EQ(runLab({"-h"}).output, help.output);
  EXPECT_EQ(runLab({"--version"}).output, "corvid-lab " CORVID_VERSION "\n");
}

TEST_F(LabProgram, WrongUsesAreNamed) {
  expectUsageError({}, "--root is required");
  expectUsageError({"--root"}, "--root lacks its value");
  expectUsageError({"--root="}, "--root: takes a folder, not an empty text");
  expectUsageError({"--root", root.path(), "more"}, "there is no command more");
  expectUsageError({"--root", root.path(), "--fast"}, "unknown option --fast");
  expectUsageError({"--root", root.path(), "--report-port", "65536"},
                   "--report-port: takes a whole number from 0 to 65535, not \"65536\"");
  expectUsageError({"--root", root.path(), "--max-age", "soon"},
                   "--max-age: takes a whole number from 0 to 1000000000, not \"soon\"");
  EXPECT_FALSE(std::filesystem::exists(root.path("lab/tls")));
}

}  // namespace
}  // namespace corvid::lab
