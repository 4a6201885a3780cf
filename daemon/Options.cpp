#include "daemon/Options.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <utility>

namespace corvid {

const std::string_view optionsHelp =
    R"(usage: corvidd [options]

Reporting daemon: takes events from entitled clients and delivers them to the
backends that their configuration names.

  --root DIR            find every file below DIR instead of / (or CORVID_ROOT)
  --log stderr|syslog   where log lines go (syslog)
  --log-level LEVEL     error, warning, info or debug (info)
  --idle-exit SECONDS   end after so long without work; 0 is never (60 when
                        started by its socket, else 0)
  --sandbox enforce|off enter the sandbox profile, or do without it (enforce)
  --check-config        check every file that the daemon reads, and exit
  --version             print the version, and exit
  --help                print this text, and exit
)";

namespace {

using Refusal = std::optional<Failure>;

// Sets `target` to what `value` stands for; the refusal names the choices.
template <class T, std::size_t count>
Refusal choose(T& target, std::string_view value,
               const std::pair<std::string_view, T> (&choices)[count]) {
  std::string names;
  for (const auto& [name, meaning] : choices) {
    if (name == value) {
      target = meaning;
      return std::nullopt;
    }
    names += names.empty() ? "" : ", ";
    names += name;
  }
  return Failure{fmt::format("takes one of {}, not '{}'", names, value)};
}

Refusal setRoot(Options& options, std::string_view value) {
  if (value.empty()) return Failure{"takes a folder, not an empty text"};
  options.root = value;
  return std::nullopt;
}

Refusal setLog(Options& options, std::string_view value) {
  return choose<LogDestination>(
      options.log, value,
      {{"stderr", LogDestination::standardError}, {"syslog", LogDestination::syslog}});
}

Refusal setLogLevel(Options& options, std::string_view value) {
  return choose<LogLevel>(options.logLevel, value,
                          {{"error", LogLevel::error},
                           {"warning", LogLevel::warning},
                           {"info", LogLevel::info},
                           {"debug", LogLevel::debug}});
}

Refusal setIdleExit(Options& options, std::string_view value) {
  std::uint32_t seconds = 0;
  const char* const end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, seconds);
  if (error != std::errc() || stop != end)
    return Failure{fmt::format("takes whole seconds, not '{}'", value)};
  options.idleExit = std::chrono::seconds(seconds);
  return std::nullopt;
}

Refusal setSandbox(Options& options, std::string_view value) {
  return choose<bool>(options.enforcesSandbox, value, {{"enforce", true}, {"off", false}});
}

struct ValueOption {
  std::string_view name;
  Refusal (*set)(Options&, std::string_view value);
};
constexpr ValueOption valueOptions[] = {
    {"--root", setRoot},          {"--log", setLog},         {"--log-level", setLogLevel},
    {"--idle-exit", setIdleExit}, {"--sandbox", setSandbox},
};

struct ActionOption {
  std::string_view name;
  Options::Action action;
};
constexpr ActionOption actionOptions[] = {
    {"--check-config", Options::Action::checkConfig},
    {"--version", Options::Action::printVersion},
    {"--help", Options::Action::printHelp},
};

// The entry of that name, or nullptr.
template <class Entry, std::size_t count>
const Entry* find(const Entry (&entries)[count], std::string_view name) {
  const auto found = std::ranges::find(entries, name, &Entry::name);
  return found == std::end(entries) ? nullptr : found;
}

}  // namespace

Result<Options> parseOptions(std::span<const char* const> arguments,
                             const char* rootFromEnvironment) {
  Options options;
  if (rootFromEnvironment) options.root = rootFromEnvironment;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (const ActionOption* found = find(actionOptions, argument)) {
      options.action = found->action;
      if (options.action != Options::Action::checkConfig) return options;
      continue;
    }
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const ValueOption* found = find(valueOptions, name);
    if (!found)
      return Failure{
          fmt::format("unknown argument '{}' (corvidd --help lists the options)", argument)};
    if (equals == std::string_view::npos && i + 1 == arguments.size())
      return Failure{fmt::format("option {} needs an argument", name)};
    const std::string_view value =
        equals == std::string_view::npos ? arguments[++i] : argument.substr(equals + 1);
    if (const Refusal refusal = found->set(options, value))
      return Failure{fmt::format("option {} {}", name, refusal->message)};
  }
  return options;
}

}  // namespace corvid
