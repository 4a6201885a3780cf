#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "daemon/Options.h"

namespace corvid {
namespace {

using std::chrono::seconds;

Result<Options> parse(std::initializer_list<const char*> arguments, const char* root = nullptr) {
  return parseOptions(std::vector<const char*>(arguments), root);
}

std::string refusal(std::initializer_list<const char*> arguments) {
  const auto parsed = parse(arguments);
  return parsed ? "" : parsed.failure().message;
}

TEST(Options, WithoutArgumentsRunsOnTheMachineItselfUnderTheSandbox) {
  const Options options = parse({}).value();
  EXPECT_EQ(options.action, Options::Action::run);
  EXPECT_EQ(options.root, "");
  EXPECT_EQ(options.log, LogDestination::syslog);
  EXPECT_EQ(options.logLevel, LogLevel::info);
  EXPECT_EQ(options.idleExit, std::nullopt);
  EXPECT_TRUE(options.enforcesSandbox);
}

TEST(Options, TakeTheirValueFromTheNextArgument) {
  const Options options = parse({"--root", "/r", "--log", "stderr", "--log-level", "debug",
                                 "--idle-exit", "5", "--sandbox", "off"})
                              .value();
  EXPECT_EQ(options.root, "/r");
  EXPECT_EQ(options.log, LogDestination::standardError);
  EXPECT_EQ(options.logLevel, LogLevel::debug);
  EXPECT_EQ(options.idleExit, seconds(5));
  EXPECT_FALSE(options.enforcesSandbox);
}

TEST(Options, TakeTheirValueAfterAnEqualsSign) {
  const Options options =
      parse({"--root=/a=b", "--log=syslog", "--log-level=error", "--idle-exit=0"}).value();
  EXPECT_EQ(options.root, "/a=b");
  EXPECT_EQ(options.log, LogDestination::syslog);
  EXPECT_EQ(options.logLevel, LogLevel::error);
  EXPECT_EQ(options.idleExit, seconds(0));
}

TEST(Options, NameEveryLogLevel) {
  EXPECT_EQ(parse({"--log-level", "error"}).value().logLevel, LogLevel::error);
  EXPECT_EQ(parse({"--log-level", "warning"}).value().logLevel, LogLevel::warning);
  EXPECT_EQ(parse({"--log-level", "info"}).value().logLevel, LogLevel::info);
  EXPECT_EQ(parse({"--log-level", "debug"}).value().logLevel, LogLevel::debug);
}

TEST(Options, TheLastOfAKindWins) {
  EXPECT_EQ(parse({"--root", "/a", "--root", "/b"}).value().root, "/b");
}

TEST(Options, TheEnvironmentNamesTheRootUnlessAnArgumentDoes) {
  EXPECT_EQ(parse({}, "/env").value().root, "/env");
  EXPECT_EQ(parse({"--root", "/arg"}, "/env").value().root, "/arg");
  EXPECT_EQ(parse({}, "").value().root, "");
}

TEST(Options, CheckConfigKeepsTheOtherOptions) {
  const Options options = parse({"--check-config", "--root", "/r"}).value();
  EXPECT_EQ(options.action, Options::Action::checkConfig);
  EXPECT_EQ(options.root, "/r");
}

TEST(Options, VersionAndHelpEndTheReading) {
  EXPECT_EQ(parse({"--version", "--nonsense"}).value().action, Options::Action::printVersion);
  EXPECT_EQ(parse({"--help", "--nonsense"}).value().action, Options::Action::printHelp);
}

TEST(Options, RefuseWhatIsUnknown) {
  EXPECT_EQ(refusal({"--nonsense"}),
            "unknown argument '--nonsense' (corvidd --help lists the options)");
  EXPECT_EQ(refusal({"--check-config=yes"}),
            "unknown argument '--check-config=yes' (corvidd --help lists the options)");
  EXPECT_EQ(refusal({"stray"}), "unknown argument 'stray' (corvidd --help lists the options)");
  EXPECT_EQ(refusal({""}), "unknown argument '' (corvidd --help lists the options)");
}

TEST(Options, RefuseAMissingValue) {
  for (const char* name : {"--root", "--log", "--log-level", "--idle-exit", "--sandbox"})
    EXPECT_EQ(refusal({name}), std::string("option ") + name + " needs an argument");
}

TEST(Options, RefuseAValueThatIsNone) {
  EXPECT_EQ(refusal({"--root="}), "option --root takes a folder, not an empty text");
  EXPECT_EQ(refusal({"--log", "file"}), "option --log takes one of stderr, syslog, not 'file'");
  EXPECT_EQ(refusal({"--log-level", "loud"}),
            "option --log-level takes one of error, warning, info, debug, not 'loud'");
  EXPECT_EQ(refusal({"--sandbox", "on"}), "option --sandbox takes one of enforce, off, not 'on'");
}

TEST(Options, RefuseAnIdleTimeThatIsNoWholeNumberOfSeconds) {
  for (const char* value : {"", "-1", "1.5", "5s", " 5", "4294967296"})
    EXPECT_EQ(refusal({"--idle-exit", value}),
              std::string("option --idle-exit takes whole seconds, not '") + value + "'");
  EXPECT_EQ(parse({"--idle-exit", "4294967295"}).value().idleExit, seconds(4294967295));
}

TEST(Options, TheHelpNamesEveryOption) {
  for (const char* name : {"--root", "--log ", "--log-level", "--idle-exit", "--sandbox",
                           "--check-config", "--version", "--help"})
    EXPECT_NE(optionsHelp.find(name), std::string_view::npos) << name;
}

}  // namespace
}  // namespace corvid
