// The examples of the man pages, run as they stand there.
//
// In an example, lines that begin with "$ " or "# " are typed, with what follows them up to the end
// of a here-document; other lines are what is printed then. They are typed into a shell whose home
// is an empty folder, and which finds the programs and the library's CORVID_ROOT, ~/lab. An example
// that starts no lab, or no daemon, finds one at work there; PORT and DASHBOARD_PORT are the lab's.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/e2e/Operator.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

struct Example {
  std::vector<std::string> commands;  // each with its here-document
  std::string output;                 // empty where the page does not say

  bool starts(std::string_view program) const {
    const std::string beginning = fmt::format("{} --root ~/lab", program);
    for (const std::string& command : commands)
      if (command.starts_with(beginning) && command.ends_with("&")) return true;
    return false;
  }
};

std::string withoutEscapes(std::string text) {
  for (std::size_t at = 0; (at = text.find('\\', at)) != text.npos; ++at)
    if (text[at + 1] == 'e')
      text.replace(at, 2, "\\");
    else
      text.erase(at, text[at + 1] == '&' ? 2 : 1);
  return text;
}

// What a page has between .Bd and .Ed, or in lines of .Dl, below the heading EXAMPLES.
std::vector<Example> examplesOf(const std::string& page) {
  std::vector<Example> examples;
  std::ifstream file(fs::path(CORVID_MAN_FOLDER) / page);
  bool isBelow = false;
  bool isLiteral = false;
  std::optional<std::string> document;  // the word that ends it
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(".Sh ")) isBelow = line == ".Sh EXAMPLES";
    if (!isBelow) continue;
    line = withoutEscapes(line);
    if (line.starts_with(".Bd ")) {
      isLiteral = true;
      examples.emplace_back();
      continue;
    }
    if (line == ".Ed") isLiteral = false;
    const bool isShort = line.starts_with(".Dl ");
    if (isShort) {
      line.erase(0, 4);
      examples.emplace_back();
    }
    if (!isLiteral && !isShort) continue;
    Example& example = examples.back();
    if (document) {
      example.commands.back() += "\n" + line;
      if (line == *document) document.reset();
    } else if (line.starts_with("$ ") || line.starts_with("# ")) {
      example.commands.push_back(line.substr(2));
      if (const auto at = line.find("<<'"); at != line.npos)
        document = line.substr(at + 3, line.find('\'', at + 3) - at - 3);
    } else {
      example.output += line + "\n";
    }
  }
  return examples;
}

struct NumberedExample {
  std::string page;
  std::size_t number;
};
void PrintTo(const NumberedExample& example, std::ostream* out) {
  *out << example.page << " " << example.number;
}
std::vector<NumberedExample> allExamples() {
  std::vector<NumberedExample> all;
  for (const char* const page :
       {"corvidctl.1", "corvidd.8", "corvid-lab.1", "corvid-storebag.1", "corvid-deployment.5",
        "corvid-device.5", "corvid-entitlements.5", "corvid-storebag.5", "corvid.7"})
    for (std::size_t number = 0; number < examplesOf(page).size(); ++number)
      all.push_back({page, number});
  return all;
}

class Examples : public testing::TestWithParam<NumberedExample> {
 protected:
  void SetUp() override {
    _home.write("lab/lab/signing-key.pem", contentOf(signingKeyFile("trusted")));
    const std::string programs = fs::path(CORVIDCTL_PROGRAM).parent_path();
    _shell.emplace("env", std::vector<std::string>{
                              "HOME=" + _home.path(), "CORVID_ROOT=" + lab(),
                              fmt::format("PATH={}:{}", programs, getenv("PATH")), "bash", "-e"});
    type("trap 'kill $(jobs -p) 2>/dev/null || true' EXIT; cd ~");
  }
  std::string lab() const { return _home.path("lab"); }

  void type(const std::string& command) { EXPECT_TRUE(_shell->write(command + "\n")) << command; }
  // Types what goes on by itself, and waits until it does its work.
  void start(const std::string& command) {
    type(command);
    if (command.starts_with("corvidd")) {
      EXPECT_TRUE(waitUntil([&] { return Operator(lab()).ctl({"status"}).status == 0; }));
      return;
    }
    const std::optional<std::string> line = _shell->readLine();
    ASSERT_TRUE(line) << command;
    const Dictionary addresses = Operator::objectIn(*line);
    const auto portOf = [&](const char* key) {
      const std::string& address = *stringAt(addresses, key);
      const std::size_t colon = address.find(':', address.find("//") + 1);
      return address.substr(colon + 1, address.find('/', colon) - colon - 1);
    };
    type("PORT=" + portOf("control"));
    type("DASHBOARD_PORT=" + portOf("dashboard"));
  }
  // Ends the shell and what it has started; how it ended.
  std::optional<int> leave() {
    // What a program that was started says at its end counts as well.
    type("for job in $(jobs -p); do kill $job; wait $job; done");
    return _shell->finish();
  }
  void expectRuns(const Example& example) {
    SCOPED_TRACE(example.commands.at(0));
    if (!example.starts("corvid-lab")) start("corvid-lab --root ~/lab &");
    if (!example.starts("corvid-lab") && !example.starts("corvidd"))
      start("corvidd --root ~/lab --log stderr &");
    for (const std::string& command : example.commands) {
      if (command.ends_with("&"))
        start(command);
      else
        type(command);
    }
    EXPECT_EQ(leave(), 0) << _shell->output() << _shell->errors();
    if (!example.output.empty()) {
      EXPECT_EQ(_shell->output(), example.output);
    }
  }

  const ScratchFolder _home;
  std::optional<ToolProcess> _shell;
};

INSTANTIATE_TEST_SUITE_P(ManPages, Examples, testing::ValuesIn(allExamples()),
                         [](const auto& test) {
                           std::string name = test.param.page;
                           std::erase(name, '-');
                           std::ranges::replace(name, '.', '_');
                           return fmt::format("{}_{}", name, test.param.number + 1);
                         });

TEST_P(Examples, RunAsTheyStand) { expectRuns(examplesOf(GetParam().page).at(GetParam().number)); }

// Of all that is listed by `NAME help`.
void expectExamplesOfEveryCommand(const std::string& name, const std::string& program) {
  std::vector<std::string> shown;
  for (const Example& example : examplesOf(name + ".1"))
    shown.insert(shown.end(), example.commands.begin(), example.commands.end());
  std::size_t commands = 0;
  bool isBelow = false;
  for (const std::string& line : linesOf(runTool(program, {"help"}).output)) {
    if (line == "Subcommands:") {
      isBelow = true;
    } else if (line.empty()) {
      isBelow = false;
    } else if (isBelow) {
      const std::string listed = line.substr(2, line.find(' ', 2) - 2);
      ++commands;
      EXPECT_TRUE(std::ranges::any_of(shown, [&](const std::string& command) {
        return (command + " ").find(name + " " + listed + " ") != command.npos;
      })) << listed;
    }
  }
  EXPECT_GE(commands, 10u);
}

TEST(ManPageExamples, ShowEveryCommand) {
  expectExamplesOfEveryCommand("corvidctl", CORVIDCTL_PROGRAM);
  expectExamplesOfEveryCommand("corvid-storebag", CORVID_STOREBAG_PROGRAM);
}

}  // namespace
}  // namespace corvid
