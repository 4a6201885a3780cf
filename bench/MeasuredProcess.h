// A program that a benchmark starts, watches and ends.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace corvid::bench {

struct Memory {
  double residentMB = 0;
  double proportionalMB = 0;
};

// User and system time of a process so far, all threads; std::runtime_error where it has ended.
std::chrono::nanoseconds cpuTimeOf(pid_t process);

// Ends its process (SIGTERM, then SIGKILL) when it goes. One thread.
class MeasuredProcess {
 public:
  // Its standard error goes to `log`.
  MeasuredProcess(const std::vector<std::string>& command, const std::string& log);
  ~MeasuredProcess();

  pid_t pid() const { return _process.pid(); }
  bool isRunning() { return _process.isRunning(); }
  std::chrono::steady_clock::time_point started() const { return _started; }
  std::chrono::nanoseconds cpuTime() const { return cpuTimeOf(pid()); }
  // How often its threads, those that run now, have gone to sleep.
  std::size_t sleeps() const { return _process.sleeps(); }
  Memory memory() const;
  // The highest resident size so far.
  double peakMB() const;

 private:
  const std::chrono::steady_clock::time_point _started;
  ChildProcess _process;
};

}  // namespace corvid::bench
