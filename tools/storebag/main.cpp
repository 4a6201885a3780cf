// corvid-storebag: writes, checks, signs and publishes the configuration of corvidd's devices.
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/CommandLine.h"
#include "tools/Arguments.h"
#include "tools/CommandShapes.h"
#include "tools/storebag/Commands.h"

namespace corvid::storebag {

namespace {

constexpr const char* version = "corvid-storebag " CORVID_VERSION;

constexpr const char* footer =
    "corvid-storebag COMMAND --help, or corvid-storebag help COMMAND, lists the options of a\n"
    "command.\n"
    "\n"
    "Exit status: 0 done, 1 it did not work or something is wrong (standard error says what),\n"
    "64 wrong usage.";

// Commands of the line and what becomes of the one that is named.
class Program {
 public:
  int run(std::vector<std::string> arguments);

 private:
  CLI::App& addCommand(const std::string& name, const std::string& help, std::function<int()> run);
  void addShow();
  void addCompletion();

  CLI::App _app{
      "Writes, checks and signs storebags, the configuration that devices fetch. Needs no daemon;\n"
      "what it says of a storebag is what a device does with it.",
      "corvid-storebag"};
  int _status = 0;

  ShowOptions _show;
  std::string _shell;
};

CLI::App& Program::addCommand(const std::string& name, const std::string& help,
                              std::function<int()> run) {
  CLI::App& command = *_app.add_subcommand(name, help);
  addCommonOptions(command, version);
  command.callback([this, run = std::move(run)] {
    try {
      _status = run();
    } catch (const tools::InputError& error) {
      throw CLI::ParseError(error.what(), exitUsage);
    }
  });
  return command;
}

void Program::addShow() {
  CLI::App& show = addCommand("show", "Print the content of a storebag, signed or not",
                              [this] { return runShowCommand(_show); });
  show.add_option("FILE", _show.source, "The storebag")->required()->type_name("");
  show.add_flag("--json", _show.asJSON, "Print JSON instead of a property list");
}

void Program::addCompletion() {
  CLI::App& completion =
      addCommand("completion", "Print the completion script of a shell: bash, zsh or fish",
                 [this] { return tools::printCompletion(_shell, _app); });
  completion.add_option("SHELL", _shell, "bash, zsh or fish")->required()->type_name("");
}

int Program::run(std::vector<std::string> arguments) {
  addCommonOptions(_app, version);
  _app.require_subcommand(1);
  addShow();
  addCompletion();
  _app.footer(footer);  // last: commands would have it too
  return readCommandLine(_app, std::move(arguments)).value_or(_status);
}

}  // namespace

}  // namespace corvid::storebag

int main(int argc, char** argv) {
  try {
    return corvid::storebag::Program().run({argv + (argc > 0), argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-storebag: %s\n", error.what());
    return 1;
  }
}
