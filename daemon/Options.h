// The command line of corvidd.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/Log.h"
#include "platform/system/SystemLog.h"

namespace corvid {

struct Options {
  // Everything lies below it; empty for the machine itself.
  std::string root;
  // Nothing: by what there is.
  std::optional<LogDestination> log;
  LogLevel logLevel = LogLevel::info;
  // 0: never. Nothing: by the way the daemon was started.
  std::optional<std::chrono::seconds> idleExit;
  // For exchanges that are under way when the daemon is told to end.
  std::chrono::seconds stopTimeout{10};
  // False leaves the process outside the sandbox.
  bool enforcesSandbox = true;
  // Checks the configuration instead of serving; how findings are printed, and whether servers are
  // asked as well.
  bool checksConfig = false;
  bool printsJSON = false;
  bool asksServers = false;
};

// Reads the arguments after the program's name, and CORVID_ROOT where they name no root. An int is
// the exit status of a program that has nothing more to do: it has printed help or version, or said
// on standard error what is wrong with the arguments.
std::variant<Options, int> readOptions(std::vector<std::string> arguments);

}  // namespace corvid
