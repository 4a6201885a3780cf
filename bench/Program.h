// What the benchmark programs have in common.
#pragma once

#include <functional>
#include <string>

#include "tools/CommandLine.h"

namespace corvid::bench {

struct Program {
  const char* name;
  const char* usage;
  std::set<std::string> options;  // each takes a value
  // `folder` is empty and removed afterwards. Errors are exceptions.
  std::function<void(const tools::CommandLine& line, const std::string& folder)> measure;
};

// Exit status of main.
int run(const Program& program, int argc, char** argv);

}  // namespace corvid::bench
