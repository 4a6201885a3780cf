// corvidctl: a client of corvidd on the command line.
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Paths.h"
#include "platform/base/Log.h"
#include "platform/system/SystemLog.h"
#include "tools/corvidctl/CommandLine.h"
#include "tools/corvidctl/PrefsCommand.h"
#include "tools/corvidctl/SendCommand.h"
#include "tools/corvidctl/SessionCommand.h"

namespace {

constexpr const char* usage =
    R"(usage: corvidctl [--root DIR] COMMAND ...

  session
      Reads calls from standard input and writes their outcomes to standard output, one JSON object
      a line each: {"call":"startConfig"}, {"call":"sendMessage","category":1,"type":2,"payload":{}}.
  send --client-type N [--client-name TEXT] [--service-name TEXT] [--session-id N]
       [--client-version N] [--category N] [--type N] [--flag 0..3 | --realtime] [KEY=VALUE ...]
      Describes a session, sends one event and flushes.
  states --client-type N [--client-name TEXT] [--service-name TEXT] [--session-id N]
         [--client-version N]
      Says which backends report for such a session.
  prefs [--suite NAME] get KEY | set KEY VALUE | delete KEY | list
      Reads or changes the daemon's preferences. VALUE is JSON, or a text where it is none.

DIR, or $CORVID_ROOT, is the folder that the daemon's socket and files hang below.
Exit status: 0 done, 1 it did not work (standard error says why), 64 wrong usage.
)";

int run(std::vector<std::string> arguments) {
  std::optional<std::string> root;
  while (!arguments.empty() && arguments.front().starts_with("--")) {
    const std::string option = arguments.front();
    arguments.erase(arguments.begin());
    if (option == "--help") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (option != "--root") throw corvid::ctl::UsageError("unknown option " + option);
    if (arguments.empty()) throw corvid::ctl::UsageError("--root lacks its value");
    root = arguments.front();
    arguments.erase(arguments.begin());
  }
  if (arguments.empty()) throw corvid::ctl::UsageError("a command is missing");
  const std::string command = arguments.front();
  arguments.erase(arguments.begin());
  if (!arguments.empty() && arguments.front() == "--help") {
    std::fputs(usage, stdout);
    return 0;
  }
  if (command == "session") {
    if (!arguments.empty()) throw corvid::ctl::UsageError("unexpected " + arguments.front());
    return corvid::ctl::runSessionCommand(root, std::cin);
  }
  if (command == "send") return corvid::ctl::runSendCommand(root, arguments);
  if (command == "states") return corvid::ctl::runStatesCommand(root, arguments);
  if (command == "prefs") return corvid::ctl::runPrefsCommand(root, arguments);
  throw corvid::ctl::UsageError("there is no command " + command);
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const auto log = corvid::openSystemLog("corvidctl", corvid::LogDestination::standardError);
  corvid::installLog(log.get(), corvid::LogLevel::warning);
  int status = 1;
  try {
    status = run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const corvid::ctl::UsageError& error) {
    std::fprintf(stderr, "corvidctl: %s\nTry corvidctl --help.\n", error.what());
    status = 64;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvidctl: %s\n", error.what());
  }
  corvid::installLog(nullptr, corvid::LogLevel::error);
  return status;
}
