#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "daemon/Options.h"

namespace corvid {
namespace {

using std::chrono::seconds;
using Arguments = std::vector<std::string>;

class OptionsTest : public testing::Test {
 protected:
  OptionsTest() { unsetenv("CORVID_ROOT"); }
  ~OptionsTest() override { unsetenv("CORVID_ROOT"); }

  // Fails the test where the arguments are refused or end the program.
  static Options parse(const Arguments& arguments) {
    const auto read = readOptions(arguments);
    EXPECT_TRUE(std::holds_alternative<Options>(read));
    const Options* options = std::get_if<Options>(&read);
    return options ? *options : Options();
  }
  static Options parseUnder(const char* root, const Arguments& arguments) {
    setenv("CORVID_ROOT", root, 1);
    return parse(arguments);
  }
  // What is printed by arguments that end the program with this status; the other stream must stay
  // empty.
  static std::string printed(int status, const Arguments& arguments) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto read = readOptions(arguments);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string errors = testing::internal::GetCapturedStderr();
    const int* const given = std::get_if<int>(&read);
    EXPECT_TRUE(given && *given == status);
    EXPECT_EQ(status == 0 ? errors : output, "");
    return status == 0 ? output : errors;
  }
  // What is wrong with the arguments.
  static std::string refusal(const Arguments& arguments) {
    const std::string line = printed(64, arguments);
    const std::string end = " (corvidd --help says more)\n";
    EXPECT_TRUE(line.starts_with("corvidd: ") && line.ends_with(end)) << line;
    return line.substr(9, line.size() - 9 - end.size());
  }
};

TEST_F(OptionsTest, WithoutArgumentsRunsOnTheMachineItselfUnderTheSandbox) {
  const Options options = parse({});
  EXPECT_FALSE(options.checksConfig);
  EXPECT_EQ(options.root, "");
  EXPECT_EQ(options.log, std::nullopt);
  EXPECT_EQ(options.stopTimeout, std::chrono::seconds(10));
  EXPECT_EQ(options.logLevel, LogLevel::info);
  EXPECT_EQ(options.idleExit, std::nullopt);
  EXPECT_TRUE(options.enforcesSandbox);
}

TEST_F(OptionsTest, JSONAndServersBelongToTheConfigurationCheck) {
  EXPECT_FALSE(parse({"--check-config"}).printsJSON);
  EXPECT_TRUE(parse({"--json", "--check-config"}).printsJSON);
  EXPECT_EQ(refusal({"--json"}), "--json requires --check-config");
  EXPECT_FALSE(parse({"--check-config"}).asksServers);
  EXPECT_TRUE(parse({"--check-config", "--online"}).asksServers);
  EXPECT_EQ(refusal({"--online"}), "--online requires --check-config");
}

TEST_F(OptionsTest, TakeTheirValueFromTheNextArgument) {
  const Options options = parse({"--root", "/r", "--log", "stderr", "--log-level", "debug",
                                 "--idle-exit", "5", "--sandbox", "off"});
  EXPECT_EQ(options.root, "/r");
  EXPECT_EQ(options.log, LogDestination::standardError);
  EXPECT_EQ(options.logLevel, LogLevel::debug);
  EXPECT_EQ(options.idleExit, seconds(5));
  EXPECT_FALSE(options.enforcesSandbox);
}

TEST_F(OptionsTest, TakeTheirValueAfterAnEqualsSign) {
  const Options options =
      parse({"--root=/a=b", "--log=syslog", "--log-level=error", "--idle-exit=0"});
  EXPECT_EQ(options.root, "/a=b");
  EXPECT_EQ(options.log, LogDestination::syslog);
  EXPECT_EQ(options.logLevel, LogLevel::error);
  EXPECT_EQ(options.idleExit, seconds(0));
}

TEST_F(OptionsTest, ReadIdleTimesAsDecimalNumbers) {
  EXPECT_EQ(parse({"--idle-exit", "010"}).idleExit, seconds(10));
  EXPECT_EQ(parse({"--idle-exit", "4294967295"}).idleExit, seconds(4294967295));
}

TEST_F(OptionsTest, NameEveryLogLevel) {
  EXPECT_EQ(parse({"--log-level", "error"}).logLevel, LogLevel::error);
  EXPECT_EQ(parse({"--log-level", "warning"}).logLevel, LogLevel::warning);
  EXPECT_EQ(parse({"--log-level", "info"}).logLevel, LogLevel::info);
  EXPECT_EQ(parse({"--log-level", "debug"}).logLevel, LogLevel::debug);
}

TEST_F(OptionsTest, TheLastOfAKindWins) {
  EXPECT_EQ(parse({"--root", "/a", "--root", "/b"}).root, "/b");
  EXPECT_EQ(parse({"--log-level", "debug", "--log-level=error"}).logLevel, LogLevel::error);
  EXPECT_EQ(parse({"--idle-exit=7", "--idle-exit", "8"}).idleExit, seconds(8));
}

TEST_F(OptionsTest, AValueMayLookLikeAnOption) {
  EXPECT_EQ(parse({"--root", "--log"}).root, "--log");
  EXPECT_EQ(parse({"--root", "help"}).root, "help");
}

TEST_F(OptionsTest, TheEnvironmentNamesTheRootUnlessAnArgumentDoes) {
  EXPECT_EQ(parseUnder("/env", {}).root, "/env");
  EXPECT_EQ(parseUnder("/env", {"--root", "/arg"}).root, "/arg");
  EXPECT_EQ(parseUnder("", {}).root, "");
}

TEST_F(OptionsTest, CheckConfigKeepsTheOtherOptions) {
  const Options options = parse({"--check-config", "--root", "/r"});
  EXPECT_TRUE(options.checksConfig);
  EXPECT_EQ(options.root, "/r");
}

TEST_F(OptionsTest, VersionAndHelpEndTheReading) {
  EXPECT_EQ(printed(0, {"--version", "--nonsense"}), "corvidd " CORVID_VERSION "\n");
  EXPECT_EQ(printed(0, {"--help", "--nonsense", "--idle-exit", "x"}), printed(0, {"--help"}));
}

TEST_F(OptionsTest, HelpIsAskedForInThreeWays) {
  const std::string help = printed(0, {"--help"});
  EXPECT_EQ(printed(0, {"-h"}), help);
  EXPECT_EQ(printed(0, {"help"}), help);
}

TEST_F(OptionsTest, RefuseWhatIsUnknown) {
  EXPECT_EQ(refusal({"--nonsense"}), "unknown option --nonsense");
  EXPECT_EQ(refusal({"--nonsense=1"}), "unknown option --nonsense");
  EXPECT_EQ(refusal({"-x"}), "unknown option -x");
  EXPECT_EQ(refusal({"stray"}), "unexpected stray");
  EXPECT_EQ(refusal({""}), "unexpected ");
}

TEST_F(OptionsTest, RefuseAValueOfAFlag) {
  EXPECT_EQ(refusal({"--check-config=yes"}), "--check-config takes no value");
}

TEST_F(OptionsTest, RefuseAMissingValue) {
  for (const char* name : {"--root", "--log", "--log-level", "--idle-exit", "--sandbox"})
    EXPECT_EQ(refusal({name}), std::string(name) + " lacks its value");
}

TEST_F(OptionsTest, RefuseAValueThatIsNone) {
  EXPECT_EQ(refusal({"--root="}), "--root: takes a folder, not an empty text");
  EXPECT_EQ(refusal({"--root", ""}), "--root: takes a folder, not an empty text");
  EXPECT_EQ(refusal({"--log", "file"}), "--log: takes stderr|syslog, not \"file\"");
  EXPECT_EQ(refusal({"--log-level", "loud"}),
            "--log-level: takes error|warning|info|debug, not \"loud\"");
  EXPECT_EQ(refusal({"--sandbox", "on"}), "--sandbox: takes enforce|off, not \"on\"");
}

TEST_F(OptionsTest, RefuseAnIdleTimeThatIsNoWholeNumberOfSeconds) {
  for (const char* value : {"", "-1", "1.5", "5s", " 5", "0x5", "4294967296"})
    EXPECT_EQ(refusal({"--idle-exit", value}),
              std::string("--idle-exit: takes a whole number from 0 to 4294967295, not \"") +
                  value + "\"");
}

TEST_F(OptionsTest, TheTimeToStopIsAWholeNumberOfSeconds) {
  EXPECT_EQ(parse({"--stop-timeout", "0"}).stopTimeout, std::chrono::seconds(0));
  EXPECT_EQ(parse({"--stop-timeout=25"}).stopTimeout, std::chrono::seconds(25));
  EXPECT_EQ(refusal({"--stop-timeout", "soon"}),
            "--stop-timeout: takes a whole number from 0 to 2147483647, not \"soon\"");
}

TEST_F(OptionsTest, TheHelpNamesEveryOption) {
  const std::string help = printed(0, {"--help"});
  EXPECT_EQ(help.find("usage: corvidd [OPTIONS]\n"), 0u);
  for (const char* name :
       {"--root DIR", "--log stderr|syslog", "--log-level error|warning", "--idle-exit N",
        "--stop-timeout N", "--sandbox enforce|off", "--check-config", "--version", "--help"})
    EXPECT_NE(help.find(name), std::string::npos) << name;
}

}  // namespace
}  // namespace corvid
