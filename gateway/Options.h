// The gateway's command line.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "base/Log.h"
#include "gateway/Limits.h"

namespace corvid::fleet {

struct Options {
  std::string listen = "127.0.0.1:8470";
  std::string monitor = "127.0.0.1:8471";
  std::string log;      // where the replicated log is, as makeLog() takes it
  std::string uploads;  // folder; empty: none are taken
  std::string config;   // file of the settings; empty: they have their defaults
  std::string certificate, key;
  std::chrono::seconds hold{20};
  int whenFull = 503;
  std::size_t memory = 256 * limits::mebibyte;
  std::size_t threads = 0;  // 0: as many as processors, eight at most
  std::chrono::seconds stopTimeout{30};
  LogLevel logLevel = LogLevel::info;
  bool checksConfig = false;
};

// The options, or the exit status of a program that is to end at once.
std::variant<Options, int> readOptions(std::vector<std::string> arguments);

}  // namespace corvid::fleet
