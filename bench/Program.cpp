#include "bench/Program.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include "base/CommandLine.h"

namespace corvid::bench {
namespace {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (mkdtemp(_path.data()) == nullptr) throw std::runtime_error("cannot make a folder in /tmp");
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return _path; }

 private:
  std::string _path = "/tmp/corvid-bench-XXXXXX";
};

}  // namespace

int run(const Program& program, int argc, char** argv) {
  try {
    CLI::App app(program.purpose, program.name);
    addCommonOptions(app, std::string(program.name) + " " CORVID_VERSION);
    for (const auto& [name, target] : program.numbers)
      addNumber(app, name, *target, 1, 100'000'000, "")->capture_default_str();
    for (const auto& [name, target] : program.texts)
      app.add_option(name, *target, "")->capture_default_str();
    if (const auto status = readCommandLine(app, {argv + 1, argv + argc})) return *status;
    const TemporaryFolder folder;
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
