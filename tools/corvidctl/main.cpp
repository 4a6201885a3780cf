// corvidctl: a client of corvidd on the command line.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/Log.h"
#include "platform/system/SystemLog.h"
#include "tools/CommandLine.h"
#include "tools/corvidctl/DashboardCommand.h"
#include "tools/corvidctl/PrefsCommand.h"
#include "tools/corvidctl/SendCommand.h"
#include "tools/corvidctl/SessionCommand.h"

namespace {

using corvid::tools::CommandLine;
using corvid::tools::UsageError;

constexpr const char* usage =
    R"(usage: corvidctl [--root DIR] COMMAND ...

  session
      Reads calls from standard input and writes their outcomes to standard output, one JSON object
      a line each: {"call":"startConfig"}, {"call":"sendMessage","category":1,"type":2,"payload":{}}.
  send --client-type N [--client-name TEXT] [--service-name TEXT] [--session-id N]
       [--client-version N] [--category N] [--type N] [--flag 0..3 | --realtime] [KEY=VALUE ...]
      Describes a session, sends one event and flushes. VALUE is JSON, or a text where it is none.
  states --client-type N [--client-name TEXT] [--service-name TEXT] [--session-id N]
         [--client-version N]
      Says which backends report for such a session.
  upload --client-type N [--client-name TEXT] [--service-name TEXT] [--session-id N]
         [--client-version N] FILE...
      Describes a session and uploads files through its backends, up to the first that fails.
  dashboard send --ip IP --port PORT --method N --resp-code N [--payload JSON] [--event-id N]
       [--session-id N] [--client-type N] [--client-version N] [--udid TEXT]
       [--seconds S] [--microseconds U]
      Sends one packet to a dashboard server, without the daemon, prints its log line and waits until
      it is acknowledged, or dropped (exit status 2).
  prefs [--suite NAME] get KEY | set KEY VALUE | delete KEY | list
      Reads or changes the daemon's preferences. VALUE is JSON, or a text where it is none.

DIR, or $CORVID_ROOT, is the folder that the daemon's socket and files hang below.
Exit status: 0 done, 1 it did not work (standard error says why), 2 a packet was not acknowledged,
64 wrong usage.
)";

// From the option or else the environment, without a slash at its end; empty for "/".
std::string rootOf(const CommandLine& line) {
  const char* environment = std::getenv("CORVID_ROOT");
  std::string root = line.folder("--root").value_or(environment ? environment : "");
  while (root.ends_with('/')) root.pop_back();
  return root;
}

// The commands do not know the option, and "unknown" would not say what to do.
void refuseRootAfter(const std::string& command, const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (argument == "--") return;
    if (argument == "--root" || argument.starts_with("--root="))
      throw UsageError("--root goes before the command: corvidctl --root DIR " + command + " ...");
  }
}

int run(const std::vector<std::string>& arguments) {
  const CommandLine line(arguments, {"--root"}, {}, CommandLine::Options::beforeFirstWord);
  if (line.words().empty()) throw UsageError("a command is missing");
  const std::string root = rootOf(line);
  const std::string& command = line.words().front();
  const std::vector<std::string> rest(line.words().begin() + 1, line.words().end());
  refuseRootAfter(command, rest);
  if (command == "session") {
    if (const CommandLine none(rest, {}, {}); !none.words().empty())
      throw UsageError("unexpected " + none.words().front());
    return corvid::ctl::runSessionCommand(root, std::cin);
  }
  if (command == "send") return corvid::ctl::runSendCommand(root, rest);
  if (command == "states") return corvid::ctl::runStatesCommand(root, rest);
  if (command == "upload") return corvid::ctl::runUploadCommand(root, rest);
  if (command == "dashboard") return corvid::ctl::runDashboardCommand(rest);
  if (command == "prefs") return corvid::ctl::runPrefsCommand(root, rest);
  throw UsageError("there is no command " + command);
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const auto log = corvid::openSystemLog("corvidctl", corvid::LogDestination::standardError);
  corvid::installLog(log.get(), corvid::LogLevel::warning);
  int status = 1;
  try {
    status = run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const corvid::tools::HelpRequest&) {
    std::fputs(usage, stdout);
    status = 0;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "corvidctl: %s\nTry corvidctl --help.\n", error.what());
    status = corvid::tools::exitUsage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvidctl: %s\n", error.what());
  }
  corvid::installLog(nullptr, corvid::LogLevel::error);
  return status;
}
