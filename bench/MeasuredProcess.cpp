#include "bench/MeasuredProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"

namespace corvid::bench {

namespace {

ChildProcess start(const std::vector<std::string>& command, const std::string& log) {
  const Descriptor errors(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  return ChildProcess(ChildProcess::Program{
      .command = command, .streams = {STDIN_FILENO, STDOUT_FILENO, errors.get()}});
}

double inMB(std::size_t bytes) { return static_cast<double>(bytes) / (1 << 20); }

}  // namespace

std::chrono::nanoseconds cpuTimeOf(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
    throw std::runtime_error("the process has ended");
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

MeasuredProcess::MeasuredProcess(const std::vector<std::string>& command, const std::string& log)
    : _started(std::chrono::steady_clock::now()), _process(start(command, log)) {}

MeasuredProcess::~MeasuredProcess() {
  _process.signal(SIGTERM);
  (void)_process.waitForExit(std::chrono::seconds(30));
}

Memory MeasuredProcess::memory() const {
  return {inMB(_process.memory("Rss:", "smaps_rollup")),
          inMB(_process.memory("Pss:", "smaps_rollup"))};
}

double MeasuredProcess::peakMB() const { return inMB(_process.memory("VmHWM:")); }

}  // namespace corvid::bench
