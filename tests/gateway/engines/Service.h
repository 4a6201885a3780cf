// A server of this product that dies and comes back.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace corvid::fleet {

// Ends with the object or with the thread that started it. One thread.
class Service {
 public:
  // Does not start it. `log`: the file that its output goes to, behind what stands there.
  // `monitor`: the port at which it answers /healthz and /metrics.
  Service(std::vector<std::string> command, std::string log, std::uint16_t monitor);

  // Returns at once.
  void start();
  // False where it does not say in time that it is ready.
  [[nodiscard]] bool awaitReady(std::chrono::seconds limit) const;
  // SIGKILL; returns when it has ended.
  void kill() { _process->kill(); }
  // SIGTERM, and the exit status; nothing where it goes on.
  std::optional<int> stop();
  bool isRunning() const { return _process && _process->isRunning(); }
  pid_t pid() const { return _process->pid(); }

  // What /metrics says now; empty where nobody answers.
  std::string metrics() const;
  // The last lines that it wrote, for messages of what went wrong.
  std::string lastWords() const;

 private:
  const std::vector<std::string> _command;
  const std::string _log;
  const std::uint16_t _monitor;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace corvid::fleet
