// The command line of corvid-storebag, from its words to its exit status.
#include <gmock/gmock.h>

#include "tests/tools/storebag/StorebagTool.h"

namespace corvid {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::vector<std::string> commands{"keygen", "sign",    "verify", "show", "lint",
                                        "keys",   "explain", "test",   "diff", "completion"};

TEST(StorebagUsage, HelpNamesEveryCommand) {
  const std::string help = printedBy({"--help"});
  EXPECT_THAT(help, StartsWith("usage: corvid-storebag [OPTIONS] SUBCOMMAND\n"));
  EXPECT_THAT(help, HasSubstr("Exit status"));
  for (const std::string& command : commands) EXPECT_THAT(help, HasSubstr("\n  " + command + " "));
}

TEST(StorebagUsage, EveryCommandHasHelpAndTheVersion) {
  for (const std::string& command : commands) {
    EXPECT_THAT(printedBy({command, "--help"}), StartsWith("usage: corvid-storebag " + command));
    EXPECT_EQ(printedBy({"help", command}), printedBy({command, "-h"}));
    EXPECT_EQ(printedBy({command, "--version"}), "corvid-storebag " CORVID_VERSION "\n");
  }
}

TEST(StorebagUsage, WrongUsesAreNamedAndEndWith64) {
  expectFailure({}, "A subcommand is required (corvid-storebag --help says more)", 64);
  expectFailure({"dance"}, "there is no command dance (corvid-storebag --help says more)", 64);
  expectFailure({"lint"}, "FILE is required (corvid-storebag lint --help says more)", 64);
  expectFailure({"show"}, "FILE|URL is required (corvid-storebag show --help says more)", 64);
  expectFailure(
      {"completion", "csh"},
      "a shell is bash, zsh or fish, not csh (corvid-storebag completion --help says more)", 64);
}

TEST(StorebagUsage, ShellsCompleteEveryCommand) {
  for (const char* shell : {"bash", "zsh", "fish"})
    for (const std::string& command : commands)
      EXPECT_THAT(printedBy({"completion", shell}), HasSubstr(command));
}

}  // namespace
}  // namespace corvid
