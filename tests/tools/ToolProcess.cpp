#include "tests/tools/ToolProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "base/Sanitizer.h"

namespace corvid {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds patience{hasSanitizer ? 60 : 20};

struct Pipe {
  Pipe() {
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    readEnd = Descriptor(ends[0]);
    writeEnd = Descriptor(ends[1]);
  }
  Descriptor readEnd;
  Descriptor writeEnd;
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<char*> environmentWithoutRoot() {
  std::vector<char*> entries;
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (!std::string_view(*entry).starts_with("CORVID_ROOT=")) entries.push_back(*entry);
  entries.push_back(nullptr);
  return entries;
}

int millisecondsUntil(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
  return static_cast<int>(left.count() > 0 ? left.count() : 0);
}

// Takes what is there, or closes the descriptor at the end.
void drain(Descriptor& end, std::string& text) {
  std::array<char, 65536> piece;
  const ssize_t count = read(end.get(), piece.data(), piece.size());
  if (count > 0)
    text.append(piece.data(), static_cast<std::size_t>(count));
  else
    end.reset();
}

}  // namespace

ToolProcess::ToolProcess(std::string program, std::vector<std::string> arguments) {
  // A program that does not read its input ends this end's writes with an error.
  signal(SIGPIPE, SIG_IGN);
  arguments.insert(arguments.begin(), program);
  Pipe input, output, errors;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.readEnd.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.writeEnd.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors.writeEnd.get(), STDERR_FILENO);
  // The program gets the usual treatment of signals, whatever this process chose.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int failure = posix_spawnp(&_pid, program.c_str(), &actions, &attributes,
                                   pointersTo(arguments).data(), environmentWithoutRoot().data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::runtime_error(program + ": " + std::strerror(failure));
  _input = std::move(input.writeEnd);
  _outputEnd = std::move(output.readEnd);
  _errorEnd = std::move(errors.readEnd);
  fcntl(_input.get(), F_SETFL, O_NONBLOCK);
}

ToolProcess::~ToolProcess() {
  if (_isReaped) return;
  kill(_pid, SIGKILL);
  waitpid(_pid, nullptr, 0);
}

void ToolProcess::pump(const std::function<bool()>& done) {
  const auto deadline = steady_clock::now() + patience;
  while (!done() && (_outputEnd || _errorEnd)) {
    // poll() passes over descriptors below zero.
    std::array<pollfd, 2> waiting{{{_outputEnd.get(), POLLIN, 0}, {_errorEnd.get(), POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), millisecondsUntil(deadline)) <= 0) return;
    if (waiting[0].revents != 0) drain(_outputEnd, _output);
    if (waiting[1].revents != 0) drain(_errorEnd, _errors);
  }
}

void ToolProcess::write(std::string_view input) {
  const auto deadline = steady_clock::now() + patience;
  while (!input.empty() && steady_clock::now() < deadline) {
    const ssize_t count = ::write(_input.get(), input.data(), input.size());
    if (count > 0) {
      input.remove_prefix(static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EAGAIN) {
      pollfd waiting{_input.get(), POLLOUT, 0};
      poll(&waiting, 1, millisecondsUntil(deadline));
    } else {
      return;
    }
  }
}

std::optional<std::string> ToolProcess::readLine() {
  pump([this] { return _output.find('\n') != std::string::npos; });
  const std::size_t end = _output.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = _output.substr(0, end);
  _output.erase(0, end + 1);
  return line;
}

std::optional<int> ToolProcess::finish() {
  endInput();
  pump([] { return false; });
  const int process = static_cast<int>(syscall(SYS_pidfd_open, _pid, 0));
  const Descriptor owned(process);
  pollfd waiting{process, POLLIN, 0};
  if (poll(&waiting, 1, millisecondsUntil(steady_clock::now() + patience)) != 1)
    return std::nullopt;
  int status = 0;
  waitpid(_pid, &status, 0);
  _isReaped = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

ToolResult runTool(std::string program, std::vector<std::string> arguments,
                   std::string_view input) {
  ToolProcess process(std::move(program), std::move(arguments));
  process.write(input);
  const std::optional<int> status = process.finish();
  return {status, process.output(), process.errors()};
}

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  for (std::size_t end; !text.empty(); text.remove_prefix(std::min(text.size(), end + 1))) {
    end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
  }
  return lines;
}

}  // namespace corvid
