// The command line of corvid-loader.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "base/Log.h"

namespace corvid::fleet {

struct LoaderOptions {
  std::string log;       // as makeLogReader() takes it
  std::string database;  // as libpq takes it
  std::vector<std::string> streams{"events", "logs"};
  std::string monitor = "127.0.0.1:8472";
  std::int64_t batch = 500;
  std::int64_t retainedDays = 0;  // 0: for ever
  std::string removedClient;      // empty: the loader runs
  LogLevel logLevel = LogLevel::info;
  bool checksConfig = false;
};

// The options, or the exit status of a program that is to end now.
std::variant<LoaderOptions, int> readLoaderOptions(std::vector<std::string> arguments);

}  // namespace corvid::fleet
