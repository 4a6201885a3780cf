// Children of the test's process.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/Waiting.h"

namespace corvid {

// Runs from construction until it ends by itself, or the object or the thread that started it goes;
// then it is killed. One thread.
class ChildProcess {
 public:
  struct Program {
    std::vector<std::string> command;        // the program, looked up in PATH, and its arguments
    std::array<int, 3> streams{0, 1, 2};     // its standard streams
    std::vector<std::string> environment{};  // "NAME=VALUE", instead of and beside this process's
    std::function<void()> prepare{};  // called in the child, just before: system calls and no more
  };
  // With the usual treatment of signals, and without CORVID_ROOT. A program that cannot be started
  // ends with status 127.
  explicit ChildProcess(const Program& program);
  // Exits with what `work` returns. Other threads of this process should be at rest: the child has
  // what they hold, such as the allocator's locks under a sanitizer, and not them.
  explicit ChildProcess(const std::function<int()>& work);
  ~ChildProcess() { kill(); }
  ChildProcess(ChildProcess&& other) noexcept;

  pid_t pid() const { return _pid; }
  void signal(int number) const;
  // Stops it; returns when each of its threads stands still. SIGCONT lets it go on.
  void freeze() const;
  // At once, without a farewell to anybody.
  void kill();
  // The exit status, or the negative number of the signal that ended it; nothing where it goes on.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = patience);
  bool isRunning() { return !waitForExit(std::chrono::milliseconds(0)); }

  // The bytes behind a field, such as "VmRSS:", in its file "status" or another one in /proc.
  std::size_t memory(std::string_view field, std::string_view file = "status") const;
  // How often its threads, those that run now, have gone to sleep.
  std::size_t sleeps() const;

 private:
  void start(const std::function<void()>& run);

  pid_t _pid = -1;
  Descriptor _process;  // readable once it has ended
  std::optional<int> _status;
};

// Does the work in a child; as ChildProcess::waitForExit.
std::optional<int> inChild(const std::function<int()>& work);

}  // namespace corvid
