// The command line of corvidd.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/Log.h"
#include "base/Result.h"
#include "platform/system/SystemLog.h"

namespace corvid {

struct Options {
  enum class Action { run, checkConfig, printVersion, printHelp };

  Action action = Action::run;
  // Everything lies below it; empty for the machine itself.
  std::string root;
  LogDestination log = LogDestination::syslog;
  LogLevel logLevel = LogLevel::info;
  // 0: never. Nothing: by the way the daemon was started.
  std::optional<std::chrono::seconds> idleExit;
  // False leaves the process outside the sandbox.
  bool enforcesSandbox = true;
};

// Reads the arguments after the program's name, the last of a kind winning; help and version end
// the reading. `rootFromEnvironment` (CORVID_ROOT, may be null) stands in for a missing --root.
// The failure is one line that says which argument is wrong.
Result<Options> parseOptions(std::span<const char* const> arguments,
                             const char* rootFromEnvironment);

extern const std::string_view optionsHelp;

// Exit status for a command line that cannot be used, as in <sysexits.h>.
inline constexpr int exitUsage = 64;

}  // namespace corvid
