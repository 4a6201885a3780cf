// The command line of corvidctl, from its words to its exit status.
#include <gtest/gtest.h>

#include "tests/fakes/ScratchRoot.h"
#include "tests/tools/ToolProcess.h"

namespace corvid {
namespace {

ToolResult ctl(std::vector<std::string> arguments) {
  return runTool(CORVIDCTL_PROGRAM, std::move(arguments));
}

void expectUsageError(std::vector<std::string> arguments, const std::string& message) {
  const ToolResult result = ctl(std::move(arguments));
  EXPECT_EQ(result.status, 64) << message;
  EXPECT_EQ(result.errors, "corvidctl: " + message + "\nTry corvidctl --help.\n");
  EXPECT_EQ(result.output, "");
}

TEST(Usage, HelpDescribesEveryCommand) {
  const ToolResult result = ctl({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  for (const char* text :
       {"usage: corvidctl [--root DIR] COMMAND", "\n  session\n", "\n  send ", "\n  states ",
        "\n  upload ", "\n  dashboard send ", "\n  prefs ", "$CORVID_ROOT", "Exit status"})
    EXPECT_NE(result.output.find(text), std::string::npos) << text;
}

TEST(Usage, EveryCommandHasHelp) {
  const std::string help = ctl({"--help"}).output;
  for (const char* command : {"session", "send", "states", "upload", "dashboard", "prefs"})
    EXPECT_EQ(ctl({command, "--help"}).output, help) << command;
  EXPECT_EQ(ctl({"send", "--client-type", "5", "a=b", "--help"}).status, 0);
}

TEST(Usage, WrongUsesOfTheProgramAreNamed) {
  expectUsageError({}, "a command is missing");
  expectUsageError({"--root", "/x"}, "a command is missing");
  expectUsageError({"dance"}, "there is no command dance");
  expectUsageError({""}, "there is no command ");
  expectUsageError({"--nonsense"}, "unknown option --nonsense");
  expectUsageError({"--root"}, "--root lacks its value");
  expectUsageError({"--root", "", "session"}, "--root takes a folder, not an empty text");
  expectUsageError({"session", "now"}, "unexpected now");
  expectUsageError({"session", "--fast"}, "unknown option --fast");
  expectUsageError({"session", "--root", "/x"},
                   "--root goes before the command: corvidctl --root DIR session ...");
  expectUsageError({"prefs", "list", "--root=/x"},
                   "--root goes before the command: corvidctl --root DIR prefs ...");
  expectUsageError({"upload", "--", "--root"},
                   "--client-type is missing: which storebag should decide?");
}

TEST(Usage, WrongUsesOfTheCommandsForPeopleAreNamed) {
  expectUsageError({"send"}, "--client-type is missing: which storebag should decide?");
  expectUsageError({"send", "--client-type", "x"},
                   "--client-type takes a whole number from 0 to 1000, not \"x\"");
  expectUsageError({"send", "--client-type", "5", "colour"},
                   "a payload entry is written key=value, not colour");
  expectUsageError({"send", "--client-type", "5", "=blue"},
                   "a payload entry is written key=value, not =blue");
  expectUsageError({"send", "--client-type", "5", "--flag", "4"},
                   "--flag takes a whole number from 0 to 3, not \"4\"");
  expectUsageError({"send", "--client-type", "5", "--type", "65536"},
                   "--type takes a whole number from 0 to 65535, not \"65536\"");
  expectUsageError({"send", "--client-type", "5", "--flag", "2", "--realtime"},
                   "--realtime is --flag 1; give one of them");
  expectUsageError({"send", "--client-type", "5", "a={\"$data\":\"?\"}"},
                   "a={\"$data\":\"?\"}: \"$data\" takes Base64, not ?");
  expectUsageError({"upload", "--client-type", "5"}, "upload takes the FILEs to upload");
  expectUsageError({"upload", "file"}, "--client-type is missing: which storebag should decide?");
  expectUsageError({"states"}, "--client-type is missing: which storebag should decide?");
  expectUsageError({"states", "--client-type", "5", "a=b"}, "unexpected a=b");
  expectUsageError({"states", "--client-type", "5", "--realtime"}, "unknown option --realtime");
}

TEST(Usage, TheRootComesFromTheOptionElseFromTheEnvironment) {
  const ScratchRoot root;
  const ScratchRoot other;
  const auto prefs = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"CORVID_ROOT=" + root.path() + "/", CORVIDCTL_PROGRAM});
    return runTool("env", std::move(arguments)).output;
  };
  ASSERT_EQ(prefs({"prefs", "set", "key", "1"}), "");
  EXPECT_EQ(prefs({"prefs", "get", "key"}), "1\n");
  EXPECT_EQ(prefs({"--root=" + other.path(), "prefs", "get", "key"}), "");
  EXPECT_EQ(ctl({"--root", root.path(), "prefs", "get", "key"}).output, "1\n");
}

}  // namespace
}  // namespace corvid
