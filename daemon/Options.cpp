#include "daemon/Options.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "base/CommandLine.h"

namespace corvid {

namespace {

// An option that takes one of a few words.
template <class T>
void addChoice(CLI::App& app, const std::string& name, T& target,
               const std::vector<std::pair<std::string, T>>& choices, const std::string& help) {
  std::string words;
  for (const auto& [word, meaning] : choices) words += (words.empty() ? "" : "|") + word;
  const auto choose = [&target, choices, name, words](const std::string& given) {
    const auto found = std::ranges::find(choices, given, &std::pair<std::string, T>::first);
    if (found == choices.end())
      throw CLI::ValidationError(name, fmt::format("takes {}, not \"{}\"", words, given));
    target = found->second;
  };
  app.add_option_function<std::string>(name, choose, help)->type_name(words);
}

}  // namespace

std::variant<Options, int> readOptions(std::vector<std::string> arguments) {
  Options options;
  CLI::App app(
      "Reporting daemon: takes events from entitled clients and delivers them to the\n"
      "backends that their configuration names.",
      "corvidd");
  addCommonOptions(app, "corvidd " CORVID_VERSION);
  addFolder(app, "--root", options.root, "Find every file below DIR instead of /")
      ->envname("CORVID_ROOT");
  addChoice<std::optional<LogDestination>>(
      app, "--log", options.log,
      {{"stderr", LogDestination::standardError}, {"syslog", LogDestination::syslog}},
      "Where log lines go (syslog; standard error where there is\nnone, or where that is a terminal)");
  addChoice<LogLevel>(app, "--log-level", options.logLevel,
                      {{"error", LogLevel::error},
                       {"warning", LogLevel::warning},
                       {"info", LogLevel::info},
                       {"debug", LogLevel::debug}},
                      "Log lines of this level and more severe ones (info)");
  std::int64_t idleExit = 0;
  const CLI::Option* const hasIdleExit = addNumber(
      app, "--idle-exit", idleExit, 0, std::numeric_limits<std::uint32_t>::max(),
      "End after so many seconds without work; 0 is never\n(60 when started by its socket, else 0)");
  std::int64_t stopTimeout = options.stopTimeout.count();
  addNumber(app, "--stop-timeout", stopTimeout, 0, std::numeric_limits<std::int32_t>::max(),
            "At SIGTERM wait so many seconds for what is being delivered (10)");
  addChoice<bool>(app, "--sandbox", options.enforcesSandbox, {{"enforce", true}, {"off", false}},
                  "Enter the sandbox profile, or do without it (enforce)");
  CLI::Option* const check = app.add_flag("--check-config", options.checksConfig,
                                          "Check every file that the daemon reads, and exit");
  app.add_flag("--online", options.asksServers,
               "Fetch each storebag as well, and connect to each server that it names")
      ->needs(check);
  app.add_flag("--json", options.printsJSON, "Print what is found as one JSON object")
      ->needs(check);

  if (const auto status = readCommandLine(app, std::move(arguments))) return *status;
  options.stopTimeout = std::chrono::seconds(stopTimeout);
  if (*hasIdleExit) options.idleExit = std::chrono::seconds(idleExit);
  return options;
}

}  // namespace corvid
