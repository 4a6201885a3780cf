#include "tests/soak/Belongings.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>

namespace corvid::soak {

namespace fs = std::filesystem;

namespace {

// As links to them in /proc name them.
std::set<std::string> tcpSockets(pid_t process) {
  std::set<std::string> sockets;
  for (const char* const table : {"tcp", "tcp6"}) {
    std::ifstream lines(fmt::format("/proc/{}/net/{}", process, table));
    std::string line;
    std::getline(lines, line);  // the head
    while (std::getline(lines, line)) {
      constexpr std::ptrdiff_t inode = 9;
      std::istringstream words(line);
      const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
      if (columns.size() > inode)
        sockets.insert(fmt::format("socket:[{}]", columns[static_cast<std::size_t>(inode)]));
    }
  }
  return sockets;
}

std::size_t residentBytes(pid_t process) {
  constexpr std::string_view field = "VmRSS:";
  std::ifstream lines(fmt::format("/proc/{}/status", process));
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(field)) return std::stoul(line.substr(field.size())) * 1024;
  return 0;
}

}  // namespace

Belongings Belongings::of(pid_t process) {
  const std::set<std::string> connections = tcpSockets(process);
  Belongings has{.memory = residentBytes(process)};
  for (const auto& entry : fs::directory_iterator(fmt::format("/proc/{}/fd", process))) {
    std::error_code gone;
    const std::string what = fs::read_symlink(entry, gone);
    if (!gone) ++(connections.contains(what) ? has.connections : has.descriptors);
  }
  const fs::directory_iterator threads(fmt::format("/proc/{}/task", process));
  has.threads = static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
  return has;
}

std::vector<std::string> complaintsAbout(const Belongings& now, const Belongings& before,
                                         std::size_t spare) {
  std::vector<std::string> complaints;
  const auto compare = [&](const char* what, std::size_t has, std::size_t may) {
    if (has > may)
      complaints.push_back(fmt::format("at rest it has {} {}, not {}", has, what, may));
  };
  compare("descriptors", now.descriptors, before.descriptors);
  compare("connections", now.connections, mostConnections);
  compare("threads", now.threads, before.threads);
  compare("bytes of memory", now.memory, before.memory + spare);
  return complaints;
}

}  // namespace corvid::soak
