// corvidctl: a client of corvidd on the command line.
#include <corvid/corvid.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "base/CommandLine.h"
#include "base/Log.h"
#include "config/Environment.h"
#include "platform/data/FilePreferences.h"
#include "platform/system/SystemLog.h"
#include "tools/Arguments.h"
#include "tools/CommandShapes.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {

namespace {

constexpr const char* footer =
    "corvidctl COMMAND --help, or corvidctl help COMMAND, lists the options of a command.\n"
    "\n"
    "Exit status: 0 done, 1 it did not work (standard error says why), 2 a packet was not\n"
    "acknowledged, 64 wrong usage.";

// A number within bounds, or a name.
template <class Number>
CLI::Option* addClientType(CLI::App& command, Number& target, std::int64_t least, std::int64_t most,
                           const std::string& help) {
  const auto number = wholeNumber(least, most);
  const auto toNumber = [number](std::string& text) {
    if (const auto type = clientTypeNamed(text)) {
      text = std::to_string(*type);
      return std::string();
    }
    std::string refusal = number(text);
    return refusal.empty() ? refusal : refusal + ", nor the name of one";
  };
  return command.add_option("--client-type", target, help)
      ->type_name("TYPE")
      ->transform(CLI::Validator(toNumber, ""));
}

// Commands of the line and what becomes of the one that is named.
class Program {
 public:
  int run(std::vector<std::string> arguments);

 private:
  CLI::App& addCommand(CLI::App& parent, const std::string& name, const std::string& help,
                       std::function<int()> run = nullptr);
  CLI::App& addSessionCommand(const std::string& name, const std::string& help,
                              std::function<int()> run);
  void addSend();
  void addLooks();
  void addDashboard();

  CLI::App _app{"Makes the calls of a client of corvidd, for scripts with session and for people.",
                "corvidctl"};
  std::string _root;
  int _status = 0;

  SessionOptions _session;
  EventOptions _event;
  PacketOptions _packet;
  bool _asJSON = false;
  std::uint64_t _number = 0;  // of a session; 0: all
  DecisionOptions _decisions;
  std::string _storebag;
  RefreshOptions _refresh;
  std::string _shell;
  std::string _level;
  std::uint32_t _levelSeconds = 0;
  std::vector<std::string> _words;
  std::string _suite{corvidSuite};
};

CLI::App& Program::addCommand(CLI::App& parent, const std::string& name, const std::string& help,
                              std::function<int()> run) {
  CLI::App& command = *parent.add_subcommand(name, help);
  addCommonOptions(command, "corvidctl " CORVID_VERSION);
  if (run)
    command.callback([this, run] {
      while (_root.ends_with('/')) _root.pop_back();
      try {
        _status = run();
      } catch (const tools::InputError& error) {
        throw CLI::ParseError(error.what(), exitUsage);
      }
    });
  return command;
}

CLI::App& Program::addSessionCommand(const std::string& name, const std::string& help,
                                     std::function<int()> run) {
  CLI::App& command = addCommand(_app, name, help, std::move(run));
  addClientType(command, _session.clientType, 0, 1000,
                "Kind of client, which chooses the storebag: a number, or the name of its storebag "
                "or tag")
      ->required();
  addNumber(command, "--client-version", _session.clientVersion, 0, 65535, "Version of the client");
  addNumber(command, "--session-id", _session.sessionID, 0, 4294967295,
            "Number of the session (1)");
  const auto addName = [&](const char* option, const char* key, const char* meaning) {
    const auto set = [this, key](const std::string& text) { _session.userInfo.set(key, text); };
    command.add_option_function<std::string>(option, set, meaning);
  };
  addName("--client-name", kCorvidUserInfoClientName, "User info: name of the client");
  addName("--service-name", kCorvidUserInfoServiceName, "User info: name of the service");
  return command;
}

void Program::addSend() {
  CLI::App& send = addSessionCommand("send", "Describe a session, send one event and flush",
                                     [this] { return runSendCommand(_root, _session, _event); });
  addNumber(send, "--category", _event.category, 0, 65535, "Category of the event (1)");
  addNumber(send, "--type", _event.type, 0, 65535, "Type of the event (0)");
  CLI::Option* const flag =
      addNumber(send, "--flag", _event.flag, 0, 3,
                "0 sends the event with the batch, 1 at once; 2 and 3 the same,\n"
                "and backends that held events back report from then on (0)");
  send.add_flag_callback(
          "--realtime", [this] { _event.flag = 1; }, "The same as --flag 1")
      ->excludes(flag);
  addWords(send, "PAYLOAD", _event.payload,
           "KEY=VALUE, where VALUE is JSON, or a text where it is none");
}

void Program::addDashboard() {
  CLI::App& dashboard =
      addCommand(_app, "dashboard", "Send packets to a dashboard server, without the daemon");
  dashboard.require_subcommand(1);
  CLI::App& send = addCommand(
      dashboard, "send",
      "Send one packet, print its log line and wait until it is acknowledged, or dropped\n"
      "(exit status 2).",
      [this] { return runDashboardCommand(_packet); });
  const auto add = [&](const char* name, auto& target, const char* help) {
    using Limits = std::numeric_limits<std::decay_t<decltype(target)>>;
    return addNumber(send, name, target, Limits::min(), Limits::max(), help);
  };
  send.add_option("--ip", _packet.ip, "IPv4 address of the server")->type_name("IP")->required();
  add("--port", _packet.port, "UDP port of the server")->required();
  add("--method", _packet.method, "Method of the event")->required();
  add("--resp-code", _packet.respCode, "Response code of the event")->required();
  send.add_option("--payload", _packet.payload, "Payload, a JSON object (empty)")
      ->type_name("JSON");
  add("--event-id", _packet.eventID, "Number of the event (1)");
  add("--session-id", _packet.sessionID, "Number of the session (0)");
  addClientType(send, _packet.clientType, std::numeric_limits<std::int32_t>::min(),
                std::numeric_limits<std::int32_t>::max(), "Kind of client, a number or a name (0)");
  add("--client-version", _packet.clientVersion, "Version of the client (0)");
  send.add_option("--udid", _packet.udid, "Identifier of the device (empty)");
  using Seconds = std::numeric_limits<std::int64_t>;
  addNumber(send, "--seconds", _packet.seconds, Seconds::min(), Seconds::max(),
            "Time of the event since 1970 (now)");
  addNumber(send, "--microseconds", _packet.microseconds, 0, 999'999, "The rest of that time (0)");
}

// The commands that look at the daemon.
void Program::addLooks() {
  constexpr std::int64_t anyNumber = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t anyCount = std::numeric_limits<std::int32_t>::max();
  const auto addJSON = [](CLI::App& command, bool& target) {
    command.add_flag("--json", target, "Print JSON, for programs");
  };
  CLI::App& status = addCommand(
      _app, "status", "Say what the daemon does and sees: device, storebags, events, hosts",
      [this] { return runStatusCommand(_root, _asJSON); });
  addJSON(status, _asJSON);
  CLI::App& sessions =
      addCommand(_app, "sessions", "List who is connected, and what each backend does and why",
                 [this] { return runSessionsCommand(_root, _number, _asJSON); });
  addJSON(sessions, _asJSON);
  addNumber(sessions, "SESSION", _number, 1, anyNumber, "Only the session with that number");
  const auto addDecisions = [&](CLI::App& command) {
    addJSON(command, _decisions.asJSON);
    addNumber(command, "--session", _decisions.session, 1, anyNumber, "Only of that session");
  };
  CLI::App& explain =
      addCommand(_app, "explain", "Say what became of the latest events and posts, and why",
                 [this] { return runExplainCommand(_root, _decisions); });
  addDecisions(explain);
  addNumber(explain, "--last", _decisions.last, 1, anyCount, "Only so many of the youngest");
  CLI::App& tap = addCommand(_app, "tap", "Say the same of each event and post as it is decided",
                             [this] { return runTapCommand(_root, _decisions); });
  addDecisions(tap);
  tap.add_flag("--payload", _decisions.payload, "Show the records as they leave (root only)");
  addNumber(tap, "--for", _decisions.seconds, 1, anyCount, "End after so many seconds");
  addCommand(_app, "top", "Show the busiest sessions, anew each second; q ends it",
             [this] { return runTopCommand(_root); });
  addCommand(_app, "metrics", "Print the daemon's numbers as OpenMetrics text",
             [this] { return runMetricsCommand(_root); });
  CLI::App& storebag = addCommand(
      _app, "storebag", "Print the storebags in force, as the daemon reads them", [this] {
        return runStorebagCommand(
            _root, _storebag.empty() ? std::nullopt : std::optional(_storebag), _asJSON);
      });
  addJSON(storebag, _asJSON);
  storebag.add_option("NAME", _storebag, "Only the one with that name")->type_name("");
  CLI::App& refresh =
      addCommand(_app, "refresh", "Have storebags fetched at the next request, whatever their age",
                 [this] { return runRefreshCommand(_root, _refresh); });
  addClientType(refresh, _refresh.clientType, 0, 1000, "Only that of the client type");
  refresh.add_flag("--states", _refresh.states,
                   "Have every session's states computed anew as well");
  CLI::App& level = addCommand(_app, "log-level", "Change the level of the daemon's log", [this] {
    const std::map<std::string, LogLevel> levels{{"error", LogLevel::error},
                                                 {"warning", LogLevel::warning},
                                                 {"info", LogLevel::info},
                                                 {"debug", LogLevel::debug}};
    const auto found = levels.find(_level);
    if (found == levels.end())
      throw tools::InputError("a level is error, warning, info or debug, not " + _level);
    return runLogLevelCommand(_root, found->second, _levelSeconds);
  });
  level.add_option("LEVEL", _level, "error, warning, info or debug")->required()->type_name("");
  addNumber(level, "--for", _levelSeconds, 1, anyCount,
            "Bring the level from before back after so many seconds");
}

int Program::run(std::vector<std::string> arguments) {
  addCommonOptions(_app, "corvidctl " CORVID_VERSION);
  _app.require_subcommand(1);
  addFolder(_app, "--root", _root,
            "Folder that the daemon's socket and files lie below, instead of /")
      ->envname("CORVID_ROOT");
  addCommand(_app, "session",
             "Make the calls of standard input, a line each: {\"call\":\"startConfig\"}",
             [this] { return runSessionCommand(_root, std::cin); });
  addSend();
  addSessionCommand("states", "Say which backends report for a session",
                    [this] { return runStatesCommand(_root, _session); });
  CLI::App& upload =
      addSessionCommand("upload", "Describe a session and upload files, up to the first that fails",
                        [this] { return runUploadCommand(_root, _session, _words); });
  addWords(upload, "FILE", _words, "Files to upload")->required();
  addLooks();
  addDashboard();
  CLI::App& prefs = addCommand(_app, "prefs", "Read or change the daemon's preferences",
                               [this] { return runPrefsCommand(_root, _suite, _words); });
  prefs.add_option("--suite", _suite, "Suite of preferences (that of the daemon)")
      ->type_name("NAME");
  addWords(
      prefs, "WORD", _words,
      "get KEY, set KEY VALUE, delete KEY or list; VALUE is JSON, or a text\nwhere it is none");
  CLI::App& completion =
      addCommand(_app, "completion", "Print the completion script of a shell: bash, zsh or fish",
                 [this] { return tools::printCompletion(_shell, _app); });
  completion.add_option("SHELL", _shell, "bash, zsh or fish")->required()->type_name("");
  _app.footer(footer);  // last: commands would have it too
  return readCommandLine(_app, std::move(arguments)).value_or(_status);
}

}  // namespace

}  // namespace corvid::ctl

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const auto log = corvid::openSystemLog("corvidctl", corvid::LogDestination::standardError);
  corvid::installLog(log.get(), corvid::LogLevel::warning);
  int status = 1;
  try {
    status = corvid::ctl::Program().run({argv + (argc > 0), argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvidctl: %s\n", error.what());
  }
  corvid::installLog(nullptr, corvid::LogLevel::error);
  return status;
}
