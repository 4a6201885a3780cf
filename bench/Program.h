// What the benchmark programs have in common.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace corvid::bench {

struct Program {
  const char* name;
  const char* purpose;
  // Options, and where their values go: whole numbers from 1 on, and texts.
  std::map<std::string, int*> numbers;
  std::map<std::string, std::string*> texts;
  // `folder` is empty and removed afterwards. Errors are exceptions.
  std::function<void(const std::string& folder)> measure;
};

// Exit status of main.
int run(const Program& program, int argc, char** argv);

// Of at least one value.
double median(std::vector<double> values);

}  // namespace corvid::bench
