#include "bench/Program.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>

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
    const tools::CommandLine line(std::vector<std::string>(argv + 1, argv + argc), program.options,
                                  {});
    if (!line.words().empty()) throw tools::UsageError("unexpected " + line.words().front());
    const TemporaryFolder folder;
    program.measure(line, folder.path());
    return 0;
  } catch (const tools::HelpRequest&) {
    std::fputs(program.usage, stdout);
    return 0;
  } catch (const tools::UsageError& error) {
    std::fprintf(stderr, "%s: %s\n%s", program.name, error.what(), program.usage);
    return tools::exitUsage;
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
