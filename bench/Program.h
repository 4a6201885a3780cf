// What the benchmark programs have in common.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

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

// Of at least one value.
double median(std::vector<double> values);

}  // namespace corvid::bench
