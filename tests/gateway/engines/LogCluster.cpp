#include "tests/gateway/engines/LogCluster.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/Descriptor.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

constexpr std::size_t diskMegabytes = 256;

Descriptor openLog(const std::string& path) {
  return Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

}  // namespace

LogCluster::LogCluster(Disks disks) {
  for (std::size_t node = 0; node < size; ++node) {
    std::filesystem::create_directories(folder(node));
    if (disks == Disks::own) _disks[node] = std::make_unique<NodeDisk>(folder(node), diskMegabytes);
  }
}

std::string LogCluster::folder(std::size_t node) const {
  return _scratch.path(fmt::format("node{}", node));
}

void LogCluster::start(std::size_t node) {
  ChildProcess::Program started = program(node);
  const Descriptor output = openLog(_scratch.path(fmt::format("node{}.log", node)));
  const Descriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  started.streams = {input.get(), output.get(), output.get()};
  _nodes[node] = std::make_unique<ChildProcess>(started);
}

void LogCluster::kill(std::size_t node) {
  if (_nodes[node]) _nodes[node]->kill();
}

bool LogCluster::awaitAll(std::chrono::seconds limit) {
  return waitUntil(
      [this] {
        for (std::size_t node = 0; node < size; ++node)
          if (_nodes[node] && !serves(node)) return false;
        return true;
      },
      limit, std::chrono::milliseconds(50));
}

bool LogCluster::repair() {
  // On a machine with much to do; whoever is late is not to begin anew.
  constexpr std::chrono::seconds limit{120};
  for (int tries = 0; tries < 2; ++tries) {
    for (std::size_t node = 0; node < size; ++node) {
      if (serves(node)) continue;
      kill(node);
      start(node);
    }
    if (awaitAll(limit)) return true;
  }
  return false;
}

std::chrono::nanoseconds LogCluster::cpuTime() const {
  std::chrono::nanoseconds sum{};
  for (const auto& node : _nodes) {
    if (!node) continue;
    // Behind the name, which may hold anything, the times are the 12th and 13th field.
    std::ifstream file(fmt::format("/proc/{}/stat", node->pid()));
    std::string text;
    std::getline(file, text);
    std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string skipped;
    for (int field = 0; field < 11; ++field) fields >> skipped;
    long long user = 0, system = 0;
    fields >> user >> system;
    sum += std::chrono::nanoseconds((user + system) * 1'000'000'000 / sysconf(_SC_CLK_TCK));
  }
  return sum;
}

std::size_t LogCluster::residentBytes() const {
  std::size_t sum = 0;
  for (const auto& node : _nodes) sum += node ? node->memory("VmRSS:") : 0;
  return sum;
}

std::string LogCluster::lastWords(std::size_t node) const {
  const std::string text = contentOf(_scratch.path(fmt::format("node{}.log", node)));
  return text.substr(text.size() - std::min<std::size_t>(text.size(), 2000));
}

void LogCluster::stopAll() {
  for (auto& node : _nodes) node.reset();
}

std::optional<std::string> outputOf(const ChildProcess::Program& program) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  const Descriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  ChildProcess::Program asked = program;
  asked.streams = {nowhere.get(), writing.get(), nowhere.get()};
  ChildProcess process(asked);
  writing.reset();
  std::string output;
  char piece[4096];
  for (ssize_t length; (length = read(reading.get(), piece, sizeof piece)) > 0;)
    output.append(piece, static_cast<std::size_t>(length));
  return process.waitForExit() == 0 ? std::optional(output) : std::nullopt;
}

}  // namespace corvid::fleet
