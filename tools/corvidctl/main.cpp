// corvidctl: a client of corvidd on the command line.
#include <corvid/corvid.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "base/CommandLine.h"
#include "base/Log.h"
#include "config/Environment.h"
#include "platform/data/FilePreferences.h"
#include "platform/system/SystemLog.h"
#include "tools/Arguments.h"
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
  void addDashboard();

  CLI::App _app{"Makes the calls of a client of corvidd, for scripts with session and for people.",
                "corvidctl"};
  std::string _root;
  int _status = 0;

  SessionOptions _session;
  EventOptions _event;
  PacketOptions _packet;
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
  addDashboard();
  CLI::App& prefs = addCommand(_app, "prefs", "Read or change the daemon's preferences",
                               [this] { return runPrefsCommand(_root, _suite, _words); });
  prefs.add_option("--suite", _suite, "Suite of preferences (that of the daemon)")
      ->type_name("NAME");
  addWords(
      prefs, "WORD", _words,
      "get KEY, set KEY VALUE, delete KEY or list; VALUE is JSON, or a text\nwhere it is none");
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
