#include "bench/Program.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "base/CommandLine.h"
#include "tests/support/Scratch.h"

namespace corvid::bench {

int run(const Program& program, int argc, char** argv) {
  try {
    CLI::App app(program.purpose, program.name);
    addCommonOptions(app, std::string(program.name) + " " CORVID_VERSION);
    for (const auto& [name, target] : program.numbers)
      addNumber(app, name, *target, 1, 100'000'000, "")->capture_default_str();
    for (const auto& [name, target] : program.texts)
      app.add_option(name, *target, "")->capture_default_str();
    if (const auto status = readCommandLine(app, {argv + 1, argv + argc})) return *status;
    const ScratchFolder folder;
    program.measure(folder.path());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program.name, error.what());
    return 1;
  }
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace corvid::bench
