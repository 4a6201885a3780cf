// A program that a benchmark starts, watches and ends.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace corvid::bench {

struct Memory {
  double residentMB = 0;
  double proportionalMB = 0;
};

// Ends its process (SIGTERM, then SIGKILL) when it goes. One thread.
class ChildProcess {
 public:
  // std::runtime_error where the program cannot be started. Its standard error goes to `log`.
  ChildProcess(const std::vector<std::string>& command, const std::string& log);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return _pid; }
  bool isRunning();
  std::chrono::steady_clock::time_point started() const { return _started; }
  // User and system time of the process so far, all threads.
  std::chrono::nanoseconds cpuTime() const;
  Memory memory() const;
  // The highest resident size so far.
  double peakMB() const;

 private:
  pid_t _pid = -1;
  std::chrono::steady_clock::time_point _started;
};

}  // namespace corvid::bench
