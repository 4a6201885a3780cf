// The command line of corvidctl, from its words to its exit status.
#include <gtest/gtest.h>

#include "tests/support/Scratch.h"
#include "tests/support/ToolProcess.h"

namespace corvid {
namespace {

ToolResult ctl(std::vector<std::string> arguments) {
  return runTool(CORVIDCTL_PROGRAM, std::move(arguments));
}

// `command` is the way to the command whose help is pointed to.
void expectUsageError(std::vector<std::string> arguments, const std::string& message,
                      const std::string& command = "corvidctl") {
  const ToolResult result = ctl(std::move(arguments));
  EXPECT_EQ(result.status, 64) << message;
  EXPECT_EQ(result.errors, "corvidctl: " + message + " (" + command + " --help says more)\n");
  EXPECT_EQ(result.output, "");
}

// What is printed by arguments that are well.
std::string printed(std::vector<std::string> arguments) {
  const ToolResult result = ctl(std::move(arguments));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  return result.output;
}

void expectNames(const std::string& text, std::vector<std::string> names) {
  for (const std::string& name : names)
    EXPECT_NE(text.find(name), std::string::npos) << name << " in " << text;
}

TEST(Usage, HelpNamesEveryCommand) {
  const std::string help = printed({"--help"});
  EXPECT_EQ(help.find("usage: corvidctl [OPTIONS] SUBCOMMAND\n"), 0u) << help;
  expectNames(help, {"\n  session ", "\n  send ", "\n  states ", "\n  upload ", "\n  dashboard ",
                     "\n  prefs ", "--root DIR", "CORVID_ROOT", "Exit status"});
}

TEST(Usage, EveryCommandListsItsOptions) {
  const std::vector<std::string> session{"--client-type", "--client-version", "--session-id",
                                         "--client-name", "--service-name"};
  const std::string send = printed({"send", "--help"});
  EXPECT_EQ(send.find("usage: corvidctl send [OPTIONS] [PAYLOAD...]\n"), 0u) << send;
  expectNames(send, session);
  expectNames(send, {"--category", "--type", "--flag", "--realtime", "KEY=VALUE"});
  expectNames(printed({"states", "--help"}), session);
  expectNames(printed({"upload", "--help"}), session);
  expectNames(printed({"dashboard", "--help"}), {"send"});
  expectNames(
      printed({"dashboard", "send", "--help"}),
      {"--ip", "--port", "--method", "--resp-code", "--payload", "--event-id", "--session-id",
       "--client-type", "--client-version", "--udid", "--seconds", "--microseconds"});
  expectNames(printed({"prefs", "--help"}), {"--suite", "get KEY", "set KEY VALUE", "delete KEY"});
  expectNames(printed({"session", "--help"}), {"usage: corvidctl session", "startConfig"});
  for (const char* other : {"states", "upload", "session", "prefs"})
    EXPECT_EQ(printed({other, "--help"}).find("--category"), std::string::npos) << other;
}

TEST(Usage, HelpIsAskedForInSeveralWays) {
  const std::string help = printed({"--help"});
  EXPECT_EQ(printed({"-h"}), help);
  EXPECT_EQ(printed({"help"}), help);
  for (const char* command : {"session", "send", "states", "upload", "dashboard", "prefs"}) {
    const std::string text = printed({command, "--help"});
    EXPECT_NE(text, help);
    EXPECT_EQ(printed({command, "-h"}), text);
    EXPECT_EQ(printed({command, "help"}), text);
    EXPECT_EQ(printed({"help", command}), text);
  }
  EXPECT_EQ(printed({"help", "dashboard", "send"}), printed({"dashboard", "send", "-h"}));
  EXPECT_EQ(printed({"send", "--client-type", "5", "a=b", "--nonsense", "--help"}),
            printed({"send", "--help"}));
}

TEST(Usage, EveryCommandPrintsTheVersion) {
  EXPECT_EQ(printed({"--version"}), "corvidctl " CORVID_VERSION "\n");
  for (const char* command : {"session", "send", "states", "upload", "dashboard", "prefs"})
    EXPECT_EQ(printed({command, "--version"}), "corvidctl " CORVID_VERSION "\n");
}

TEST(Usage, TheWordHelpMayBeMeantAsItself) {
  const ScratchRoot root;
  const auto prefs = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", root.path(), "prefs"});
    return printed(std::move(words));
  };
  prefs({"set", "help", "1"});
  EXPECT_EQ(prefs({"get", "help"}), "1\n");
  prefs({"set", "key", "--", "--help"});
  EXPECT_EQ(prefs({"get", "key"}), "\"--help\"\n");
}

TEST(Usage, WrongUsesOfTheProgramAreNamed) {
  expectUsageError({}, "A subcommand is required");
  expectUsageError({"--root", "/x"}, "A subcommand is required");
  expectUsageError({"dance"}, "there is no command dance");
  expectUsageError({""}, "there is no command ");
  expectUsageError({"help", "dance"}, "there is no command help");
  expectUsageError({"--nonsense"}, "unknown option --nonsense");
  expectUsageError({"--root"}, "--root lacks its value");
  expectUsageError({"--root", "", "session"}, "--root: takes a folder, not an empty text",
                   "corvidctl session");
  expectUsageError({"session", "now"}, "unexpected now", "corvidctl session");
  expectUsageError({"session", "--fast"}, "unknown option --fast", "corvidctl session");
  expectUsageError({"session", "--root", "/x"},
                   "--root goes before the command: corvidctl --root DIR session ...",
                   "corvidctl session");
  expectUsageError({"prefs", "list", "--root=/x"},
                   "--root goes before the command: corvidctl --root DIR prefs ...",
                   "corvidctl prefs");
  expectUsageError({"upload", "--", "--root"}, "--client-type is required", "corvidctl upload");
}

TEST(Usage, WrongUsesOfTheCommandsForPeopleAreNamed) {
  const auto expectOfSend = [](std::vector<std::string> arguments, const std::string& message) {
    arguments.insert(arguments.begin(), {"send", "--client-type", "5"});
    expectUsageError(std::move(arguments), message, "corvidctl send");
  };
  expectUsageError({"send"}, "--client-type is required", "corvidctl send");
  for (const char* number :
       {"x", "-1", "1001", "1.5", "1x", " 1", "", "+1", "0x1", "99999999999999999999"})
    expectOfSend({"--client-type", number},
                 std::string("--client-type: takes a whole number from 0 to 1000, not \"") +
                     number + "\", nor the name of one");
  expectOfSend({"colour"}, "a payload entry is written key=value, not colour");
  expectOfSend({"=blue"}, "a payload entry is written key=value, not =blue");
  for (const char* word : {"[a,b]", "{}", "%%", ""})
    expectOfSend({word}, std::string("a payload entry is written key=value, not ") + word);
  expectOfSend({"--flag", "4"}, "--flag: takes a whole number from 0 to 3, not \"4\"");
  expectOfSend({"--type", "65536"}, "--type: takes a whole number from 0 to 65535, not \"65536\"");
  expectOfSend({"--flag", "2", "--realtime"}, "--flag excludes --realtime");
  expectOfSend({"--realtime=yes"}, "--realtime takes no value");
  expectOfSend({"a={\"$data\":\"?\"}"}, "a={\"$data\":\"?\"}: \"$data\" takes Base64, not ?");
  expectUsageError({"upload", "--client-type", "5"}, "FILE is required", "corvidctl upload");
  expectUsageError({"upload", "file"}, "--client-type is required", "corvidctl upload");
  expectUsageError({"states"}, "--client-type is required", "corvidctl states");
  expectUsageError({"states", "--client-type", "5", "a=b"}, "unexpected a=b", "corvidctl states");
  expectUsageError({"states", "--client-typ", "5"}, "unknown option --client-typ",
                   "corvidctl states");
  expectUsageError({"states", "--client-type", "5", "--realtime"}, "unknown option --realtime",
                   "corvidctl states");
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
