#include "tests/e2e/ClientProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "platform/data/JSON.h"
#include "tests/e2e/DaemonProcess.h"

namespace corvid {

namespace {

using std::chrono::steady_clock;

}  // namespace

ClientProcess::ClientProcess(const std::string& root) {
  std::array<int, 2> ends;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
    throw std::runtime_error("socketpair");
  _socket = Descriptor(ends[0]);
  const Descriptor theirs(ends[1]);
  _pid = fork();
  if (_pid == 0) {
    run(root, theirs.get());
    _exit(127);
  }
}

ClientProcess::ClientProcess(ClientProcess&& other) noexcept
    : _pid(std::exchange(other._pid, -1)),
      _socket(std::move(other._socket)),
      _unread(std::move(other._unread)),
      _outcomes(std::move(other._outcomes)),
      _events(std::move(other._events)) {}

ClientProcess::~ClientProcess() { kill(); }

// In the child.
void ClientProcess::run(const std::string& root, int socket) const {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(socket, STDIN_FILENO);
  dup2(socket, STDOUT_FILENO);
  execl(CORVIDCTL_PROGRAM, "corvidctl", "--root", root.c_str(), "session", nullptr);
}

bool ClientProcess::readUntil(steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
  pollfd waiting{_socket.get(), POLLIN, 0};
  if (poll(&waiting, 1, std::max(0, static_cast<int>(left.count()))) != 1) return false;
  std::array<char, 65536> buffer;
  const ssize_t size = read(_socket.get(), buffer.data(), buffer.size());
  if (size <= 0) return false;
  _unread.append(buffer.data(), static_cast<std::size_t>(size));
  std::size_t begin = 0;
  for (std::size_t end = _unread.find('\n'); end != std::string::npos;
       end = _unread.find('\n', begin)) {
    const auto line = parseJSON(std::string_view(_unread).substr(begin, end - begin));
    begin = end + 1;
    const Dictionary printed =
        line && line.value().dictionary() ? *line.value().dictionary() : Dictionary();
    (printed.contains("event") ? _events : _outcomes).push_back(printed);
  }
  _unread.erase(0, begin);
  return true;
}

bool ClientProcess::send(const Dictionary& line) {
  const std::string text = writeJSON(line).value() + "\n";
  const ssize_t sent = ::send(_socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(text.size());
}

Dictionary ClientProcess::call(const Dictionary& line) {
  if (!send(line)) return {};
  const auto deadline = steady_clock::now() + DaemonProcess::patience;
  while (_outcomes.empty())
    if (!readUntil(deadline)) return {};
  Dictionary outcome = std::move(_outcomes.front());
  _outcomes.erase(_outcomes.begin());
  return outcome;
}

const std::vector<Dictionary>& ClientProcess::events() {
  while (readUntil(steady_clock::now())) continue;
  return _events;
}

bool ClientProcess::awaitEvent(const Condition& condition) {
  const auto deadline = steady_clock::now() + DaemonProcess::patience;
  std::size_t looked = 0;
  for (;;) {
    for (; looked < _events.size(); ++looked)
      if (condition(_events[looked])) return true;
    if (!readUntil(deadline)) return false;
  }
}

void ClientProcess::signal(int number) const { ::kill(_pid, number); }

std::optional<int> ClientProcess::end() {
  shutdown(_socket.get(), SHUT_WR);
  const auto deadline = steady_clock::now() + DaemonProcess::patience;
  while (readUntil(deadline)) continue;
  // Its output is closed: it ends, unless the time was up.
  if (steady_clock::now() >= deadline) return std::nullopt;
  int status = 0;
  waitpid(std::exchange(_pid, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ClientProcess::kill() {
  if (_pid == -1) return;
  signal(SIGKILL);
  waitpid(std::exchange(_pid, -1), nullptr, 0);
}

}  // namespace corvid
