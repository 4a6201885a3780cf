#include "tests/e2e/DaemonProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "base/UnixAddress.h"

namespace corvid {

namespace {

constexpr std::string_view outputFile = "stdout";
constexpr std::string_view errorFile = "stderr";
constexpr std::string_view notifyFile = "notify";
constexpr int firstListenDescriptor = 3;

std::string contentOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

int notificationSocketAt(const std::string& path) {
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  unlink(path.c_str());
  if (UnixAddress(path).bind(socket) != 0) throw std::runtime_error("bind " + path);
  return socket;
}

void redirect(int descriptor, const std::string& file) {
  const int opened = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(opened, descriptor);
}

}  // namespace

DaemonProcess::DaemonProcess(const ScratchRoot& root, std::vector<std::string> arguments,
                             std::optional<int> listeningSocket)
    : _root(root), _notifySocket(notificationSocketAt(root.path(notifyFile))) {
  arguments.insert(arguments.begin(), {"corvidd", "--root", root.path()});
  _pid = fork();
  if (_pid == 0) {
    run(arguments, listeningSocket);
    _exit(127);
  }
  _process = static_cast<int>(syscall(SYS_pidfd_open, _pid, 0));
}

DaemonProcess::~DaemonProcess() {
  if (!_status) {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }
  close(_process);
  close(_notifySocket);
}

void DaemonProcess::signal(int number) const { kill(_pid, number); }

std::size_t DaemonProcess::descriptors() const {
  const std::filesystem::directory_iterator open(fmt::format("/proc/{}/fd", _pid)), end;
  return static_cast<std::size_t>(std::distance(open, end));
}

std::size_t DaemonProcess::memory(std::string_view field) const {
  std::ifstream status(fmt::format("/proc/{}/status", _pid));
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field)) return std::stoul(line.substr(field.size())) * 1024;
  throw std::runtime_error("no memory is known of the daemon");
}

// In the child.
void DaemonProcess::run(const std::vector<std::string>& arguments,
                        std::optional<int> listeningSocket) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
  prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
  redirect(STDOUT_FILENO, _root.path(outputFile));
  redirect(STDERR_FILENO, _root.path(errorFile));
  setenv("NOTIFY_SOCKET", _root.path(notifyFile).c_str(), 1);
  unsetenv("CORVID_ROOT");
  if (listeningSocket) {
    if (*listeningSocket == firstListenDescriptor)
      fcntl(firstListenDescriptor, F_SETFD, 0);
    else
      dup2(*listeningSocket, firstListenDescriptor);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  }
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  execv(CORVIDD_PROGRAM, pointers.data());
}

bool DaemonProcess::waitUntilReady() {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    std::array<pollfd, 2> waiting{{{_notifySocket, POLLIN, 0}, {_process, POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), static_cast<int>(left.count())) < 0) return false;
    if (waiting[0].revents & POLLIN) {
      std::array<char, 4096> message;
      const ssize_t size = recv(_notifySocket, message.data(), message.size(), 0);
      if (size > 0 &&
          std::string_view(message.data(), static_cast<std::size_t>(size)).find("READY=1") !=
              std::string_view::npos)
        return true;
    } else if (waiting[1].revents & POLLIN) {
      return false;
    }
  }
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
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (standardError().find(fragment) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds limit) {
  if (_status) return _status;
  pollfd waiting{_process, POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(limit.count())) != 1) return std::nullopt;
  int status = 0;
  waitpid(_pid, &status, 0);
  _status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return _status;
}

std::string DaemonProcess::standardOutput() const { return contentOf(_root.path(outputFile)); }
std::string DaemonProcess::standardError() const { return contentOf(_root.path(errorFile)); }

}  // namespace corvid
