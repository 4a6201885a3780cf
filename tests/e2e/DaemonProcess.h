// The real corvidd as a child process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Sanitizer.h"
#include "tests/fakes/ScratchRoot.h"

namespace corvid {

// Runs from construction until it ends by itself, or the object or the test's process goes; then
// it is killed. Its arguments are `--root` of the scratch root and what the test adds; its output
// goes to files below the root, behind what daemons before it wrote. Where the test runs as the
// superuser, the daemon has no right to pass over the permissions of files all the same.
//
// Every wait ends after `patience`, so that a broken daemon fails a test and never hangs it.
class DaemonProcess {
 public:
  static constexpr std::chrono::seconds patience{hasSanitizer ? 60 : 20};

  // With a `listeningSocket` the daemon is started as if by its socket; the descriptor stays the
  // caller's.
  DaemonProcess(const ScratchRoot& root, std::vector<std::string> arguments,
                std::optional<int> listeningSocket = std::nullopt);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return _pid; }
  void signal(int number) const;
  // How many descriptors it has open.
  std::size_t descriptors() const;
  // The memory that it has resident, and the most that it ever had, in bytes.
  std::size_t residentMemory() const { return memory("VmRSS:"); }
  std::size_t peakMemory() const { return memory("VmHWM:"); }
  // Until the daemon has reported that it serves; false when it ended or did not in time.
  bool waitUntilReady();
  // Until a line with that fragment is in the log (standard error).
  bool waitForLog(std::string_view fragment) const;
  // How often the log holds that text.
  std::size_t timesLogged(std::string_view fragment) const;
  // The exit status, or the negative number of the signal that ended it; nothing when it goes on.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = patience);

  std::string standardOutput() const;
  std::string standardError() const;

 private:
  std::size_t memory(std::string_view field) const;
  void run(const std::vector<std::string>& arguments, std::optional<int> listeningSocket);

  const ScratchRoot& _root;
  int _notifySocket = -1;
  pid_t _pid = -1;
  int _process = -1;  // descriptor that becomes readable when the process ends
  std::optional<int> _status;
};

}  // namespace corvid
