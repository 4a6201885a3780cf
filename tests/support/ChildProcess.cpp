#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

namespace corvid {

namespace {

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// In a file of /proc.
std::optional<std::size_t> numberBehind(std::string_view field, const std::string& file) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(field)) return std::stoul(line.substr(field.size()));
  return std::nullopt;
}

std::vector<std::string> environmentWith(std::vector<std::string> variables) {
  std::set<std::string_view> named{"CORVID_ROOT"};
  const std::vector<std::string> given = variables;
  const auto nameOf = [](std::string_view variable) {
    return variable.substr(0, variable.find('='));
  };
  for (const std::string& variable : given) named.insert(nameOf(variable));
  for (char** variable = environ; *variable != nullptr; ++variable)
    if (!named.contains(nameOf(*variable))) variables.push_back(*variable);
  return variables;
}

void giveStream(int descriptor, int number) {
  if (descriptor == number)
    fcntl(number, F_SETFD, 0);
  else
    dup2(descriptor, number);
}

void resetSignals() {
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

ChildProcess::ChildProcess(const Program& program) {
  // All memory is taken here: the child may find the allocator locked.
  const std::vector<char*> command = pointersTo(program.command);
  const std::vector<std::string> environment = environmentWith(program.environment);
  const std::vector<char*> variables = pointersTo(environment);
  start([&] {
    for (int number = 0; number < 3; ++number)
      giveStream(program.streams[static_cast<std::size_t>(number)], number);
    resetSignals();
    if (program.prepare) program.prepare();
    execvpe(command[0], command.data(), variables.data());
    _exit(127);
  });
}

ChildProcess::ChildProcess(const std::function<int()>& work) {
  std::fflush(nullptr);
  start([&] { _exit(work()); });
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : _pid(std::exchange(other._pid, -1)),
      _process(std::move(other._process)),
      _status(other._status) {}

void ChildProcess::start(const std::function<void()>& run) {
  _pid = fork();
  if (_pid < 0) throw std::runtime_error("fork");
  if (_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
  }
  _process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, _pid, 0)));
}

void ChildProcess::signal(int number) const {
  if (!_status) ::kill(_pid, number);
}

void ChildProcess::freeze() const {
  signal(SIGSTOP);
  siginfo_t stopped{};
  waitid(P_PID, static_cast<id_t>(_pid), &stopped, WSTOPPED | WEXITED | WNOWAIT);
}

void ChildProcess::kill() {
  if (_pid == -1 || _status) return;
  signal(SIGKILL);
  (void)waitForExit(std::chrono::milliseconds(-1));
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds limit) {
  if (_status) return _status;
  pollfd waiting{_process.get(), POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(limit.count())) != 1) return std::nullopt;
  int status = 0;
  waitpid(_pid, &status, 0);
  _status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return _status;
}

std::size_t ChildProcess::memory(std::string_view field, std::string_view file) const {
  if (const auto kilobytes = numberBehind(field, fmt::format("/proc/{}/{}", _pid, file)))
    return *kilobytes * 1024;
  throw std::runtime_error(fmt::format("process {} tells no {}", _pid, field));
}

std::size_t ChildProcess::sleeps() const {
  std::size_t sum = 0;
  for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", _pid)))
    sum += numberBehind("voluntary_ctxt_switches:", thread.path() / "status").value_or(0);
  return sum;
}

std::optional<int> inChild(const std::function<int()>& work) {
  return ChildProcess(work).waitForExit();
}

}  // namespace corvid
