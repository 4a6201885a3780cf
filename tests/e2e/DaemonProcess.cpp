#include "tests/e2e/DaemonProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "base/UnixAddress.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {

namespace {

constexpr std::string_view outputFile = "stdout";
constexpr std::string_view errorFile = "stderr";
constexpr std::string_view notifyFile = "notify";
constexpr int firstListenDescriptor = 3;

Descriptor notificationSocketAt(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  unlink(path.c_str());
  if (UnixAddress(path).bind(socket.get()) != 0) throw std::runtime_error("bind " + path);
  return socket;
}

ChildProcess start(const ScratchRoot& root, std::vector<std::string> arguments,
                   std::optional<int> listeningSocket, const std::function<void()>& prepare,
                   std::vector<std::string> environment) {
  arguments.insert(arguments.begin(), {CORVIDD_PROGRAM, "--root", root.path()});
#ifdef CORVID_EMULATED
  // What plays another processor knows neither seccomp nor Landlock.
  if (std::ranges::find(arguments, "--sandbox") == arguments.end())
    arguments.insert(arguments.end(), {"--sandbox", "off"});
#endif
  environment.push_back("NOTIFY_SOCKET=" + DaemonProcess::notifySocket(root));
  if (listeningSocket) {
    environment.push_back("LISTEN_FDS=1");
    // Only the process itself knows its number in time.
    arguments.insert(arguments.begin(), {"sh", "-c", "LISTEN_PID=$$ exec \"$@\"", "sh"});
  }
  const auto open = [&](std::string_view name) {
    return Descriptor(
        ::open(root.path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  };
  const Descriptor output = open(outputFile);
  const Descriptor errors = open(errorFile);
  return ChildProcess(ChildProcess::Program{.command = std::move(arguments),
                                            .streams = {STDIN_FILENO, output.get(), errors.get()},
                                            .environment = std::move(environment),
                                            .prepare = [listeningSocket, &prepare] {
                                              prepare();
                                              if (listeningSocket == firstListenDescriptor)
                                                fcntl(firstListenDescriptor, F_SETFD, 0);
                                              else if (listeningSocket)
                                                dup2(*listeningSocket, firstListenDescriptor);
                                            }});
}

}  // namespace

DaemonProcess::DaemonProcess(const ScratchRoot& root, std::vector<std::string> arguments,
                             std::optional<int> listeningSocket,
                             const std::function<void()>& prepare,
                             std::vector<std::string> environment)
    : _root(root),
      _notifySocket(notificationSocketAt(notifySocket(root))),
      _process(
          start(root, std::move(arguments), listeningSocket, prepare, std::move(environment))) {}

void DaemonProcess::giveUpFileRights() {
  prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
  prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
}

std::string DaemonProcess::notifySocket(const ScratchRoot& root) { return root.path(notifyFile); }

std::size_t DaemonProcess::descriptors() const {
  const std::filesystem::directory_iterator open(fmt::format("/proc/{}/fd", pid())), end;
  return static_cast<std::size_t>(std::distance(open, end));
}

bool DaemonProcess::takeMessage() {
  std::array<char, 4096> message;
  const ssize_t size = recv(_notifySocket.get(), message.data(), message.size(), 0);
  if (size <= 0) return false;
  const std::string_view text(message.data(), static_cast<std::size_t>(size));
  constexpr std::string_view statusKey = "STATUS=";
  if (const auto at = text.find(statusKey); at != text.npos)
    _status = text.substr(at + statusKey.size());
  if (text.find("READY=1") != text.npos) _isReady = true;
  _timesFed += text == "WATCHDOG=1";
  return true;
}

const std::string& DaemonProcess::latestStatus() {
  while (takeMessage()) continue;
  return _status;
}

std::size_t DaemonProcess::timesFed() {
  while (takeMessage()) continue;
  return _timesFed;
}

bool DaemonProcess::waitUntilReady() {
  _isReady = false;
  return waitUntil([&] {
           while (!_isReady && takeMessage()) continue;
           return _isReady || !_process.isRunning();
         }) &&
         _isReady;
}

std::size_t DaemonProcess::timesLogged(std::string_view fragment) const {
  const std::string log = standardError();
  std::size_t count = 0;
  for (std::size_t at = log.find(fragment); at != std::string::npos;
       at = log.find(fragment, at + 1))
    ++count;
  return count;
}

bool DaemonProcess::waitForLog(std::string_view fragment) const {
  return waitUntil([&] { return standardError().find(fragment) != std::string::npos; });
}

std::string DaemonProcess::standardOutput() const { return contentOf(_root.path(outputFile)); }
std::string DaemonProcess::standardError() const { return contentOf(_root.path(errorFile)); }

}  // namespace corvid
