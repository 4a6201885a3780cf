#include "bench/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>

namespace corvid::bench {

namespace {

// The number behind `key` in a file of /proc, in MB.
double megabytes(const std::string& path, std::string_view key) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line))
    if (line.starts_with(key)) return std::stod(line.substr(key.size())) / 1024.0;
  return 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& log)
    : _started(std::chrono::steady_clock::now()) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  const int error = posix_spawnp(&_pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + command[0]);
}

ChildProcess::~ChildProcess() {
  kill(_pid, SIGTERM);
  for (int i = 0; i < 200 && isRunning(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (_pid > 0 && isRunning()) {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }
}

bool ChildProcess::isRunning() {
  if (_pid <= 0) return false;
  if (waitpid(_pid, nullptr, WNOHANG) == 0) return true;
  _pid = -1;
  return false;
}

std::chrono::nanoseconds ChildProcess::cpuTime() const {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(_pid, &clock) != 0 || clock_gettime(clock, &time) != 0)
    throw std::runtime_error("the process has ended");
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

Memory ChildProcess::memory() const {
  const std::string file = "/proc/" + std::to_string(_pid) + "/smaps_rollup";
  return {megabytes(file, "Rss:"), megabytes(file, "Pss:")};
}

double ChildProcess::peakMB() const {
  return megabytes("/proc/" + std::to_string(_pid) + "/status", "VmHWM:");
}

}  // namespace corvid::bench
