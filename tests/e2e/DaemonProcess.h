// The real corvidd as a child process.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {

// Runs as a ChildProcess does. Its arguments are `--root` of the scratch root and what the test
// adds; its output goes to files below the root, behind what daemons before it wrote.
//
// Every wait ends after `patience`, so that a broken daemon fails a test and never hangs it.
class DaemonProcess {
 public:
  // With a `listeningSocket` the daemon is started as if by its socket; the descriptor stays the
  // caller's. `prepare` and `environment` are as ChildProcess's.
  DaemonProcess(const ScratchRoot& root, std::vector<std::string> arguments,
                std::optional<int> listeningSocket = std::nullopt,
                const std::function<void()>& prepare = giveUpFileRights,
                std::vector<std::string> environment = {});
  // Where the test runs as the superuser, the daemon has no right to pass over the permissions of
  // files all the same.
  static void giveUpFileRights();
  // Where it tells the test that it serves.
  static std::string notifySocket(const ScratchRoot& root);

  pid_t pid() const { return _process.pid(); }
  void signal(int number) const { _process.signal(number); }
  void freeze() const { _process.freeze(); }
  bool isRunning() { return _process.isRunning(); }
  // How many descriptors it has open.
  std::size_t descriptors() const;
  // The memory that it has resident, and the most that it ever had, in bytes.
  std::size_t residentMemory() const { return _process.memory("VmRSS:"); }
  std::size_t peakMemory() const { return _process.memory("VmHWM:"); }
  std::size_t sleeps() const { return _process.sleeps(); }
  // Until the daemon has reported that it serves; false when it ended or did not in time.
  bool waitUntilReady();
  // What its status line says now.
  const std::string& latestStatus();
  // How often it has fed its watchdog so far.
  std::size_t timesFed();
  // Until a line with that fragment is in the log (standard error).
  bool waitForLog(std::string_view fragment) const;
  // How often the log holds that text.
  std::size_t timesLogged(std::string_view fragment) const;
  // As ChildProcess::waitForExit.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = patience) {
    return _process.waitForExit(limit);
  }

  std::string standardOutput() const;
  std::string standardError() const;

 private:
  // Takes in what it has told its launcher; false where there is nothing more.
  bool takeMessage();

  const ScratchRoot& _root;
  std::string _status;
  bool _isReady = false;
  std::size_t _timesFed = 0;
  const Descriptor _notifySocket;
  ChildProcess _process;
};

}  // namespace corvid
