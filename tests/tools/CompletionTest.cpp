#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Scratch.h"
#include "tests/support/ToolProcess.h"
#include "tools/Completion.h"

namespace corvid::tools {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const CommandShape program{
    .name = "tool",
    .help = "A tool",
    .options = {{.names = {"--root"}, .takesValue = true, .help = "Folder"},
                {.names = {"--help", "-h"}, .help = "Print this user's help"}},
    .commands = {
        {.name = "status",
         .help = "Say how it is",
         .options = {{.names = {"--json"}, .help = "For programs"}}},
        {.name = "board", .help = "Boards", .commands = {{.name = "send", .help = "Send"}}}}};

class Completion : public testing::Test {
 protected:
  // What bash offers for the last of these words.
  std::vector<std::string> offered(const std::vector<std::string>& words) {
    _root.write("tool.bash", *completionFor("bash", program));
    std::string line = "source " + _root.path("tool.bash") + "; COMP_WORDS=(tool";
    for (const std::string& word : words) line += " '" + word + "'";
    line += "); COMP_CWORD=" + std::to_string(words.size()) +
            "; _complete_tool; printf '%s\\n' \"${COMPREPLY[@]}\"";
    const ToolResult result = runTool("bash", {"-c", line});
    EXPECT_EQ(result.errors, "");
    return linesOf(result.output);
  }

  ScratchRoot _root;
};

TEST_F(Completion, OffersCommandsAndOptionsThatBeginSo) {
  EXPECT_THAT(offered({"s"}), ElementsAre("status"));
  EXPECT_THAT(offered({""}), ElementsAre("status", "board", "--root", "--help", "-h"));
  EXPECT_THAT(offered({"--h"}), ElementsAre("--help"));
}

TEST_F(Completion, OffersWhatTheCommandHas) {
  EXPECT_THAT(offered({"status", "-"}), ElementsAre("--json"));
  EXPECT_THAT(offered({"board", "s"}), ElementsAre("send"));
}

TEST_F(Completion, TakesNoValueOfAnOptionForACommand) {
  EXPECT_THAT(offered({"--root", "status", "b"}), ElementsAre("board"));
  EXPECT_THAT(offered({"--root", "/x", "status", "--j"}), ElementsAre("--json"));
}

TEST(CompletionScript, NamesEachCommandAndOptionForTheOtherShells) {
  const std::string zsh = *completionFor("zsh", program);
  EXPECT_TRUE(zsh.starts_with("#compdef tool\n"));
  EXPECT_THAT(zsh, HasSubstr("'status:Say how it is'"));
  EXPECT_THAT(zsh, HasSubstr("'--json:For programs'"));
  const std::string fish = *completionFor("fish", program);
  EXPECT_THAT(fish, HasSubstr("-a status -d 'Say how it is'"));
  EXPECT_THAT(fish, HasSubstr("'__fish_seen_subcommand_from status' -l json -d 'For programs'"));
  EXPECT_THAT(fish, HasSubstr(" -l root -r -d 'Folder'"));
  EXPECT_THAT(fish, HasSubstr("-l help -s h -d 'Print this user'\\''s help'"));
  EXPECT_EQ(completionFor("csh", program), std::nullopt);
}

}  // namespace
}  // namespace corvid::tools
