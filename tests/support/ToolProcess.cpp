#include "tests/support/ToolProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace corvid {

namespace {

using std::chrono::steady_clock;

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

int millisecondsUntil(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
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

std::vector<std::string> commandOf(std::string program, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), std::move(program));
  return arguments;
}

}  // namespace

struct ToolProcess::Pipes {
  Pipe input, output, errors;
};

ToolProcess::ToolProcess(std::string program, std::vector<std::string> arguments)
    : ToolProcess(commandOf(std::move(program), std::move(arguments)), Pipes()) {}

ToolProcess::ToolProcess(std::vector<std::string> command, Pipes pipes)
    : _process(
          ChildProcess::Program{.command = std::move(command),
                                .streams = {pipes.input.readEnd.get(), pipes.output.writeEnd.get(),
                                            pipes.errors.writeEnd.get()}}),
      _input(std::move(pipes.input.writeEnd)),
      _outputEnd(std::move(pipes.output.readEnd)),
      _errorEnd(std::move(pipes.errors.readEnd)) {
  // A program that does not read its input ends this end's writes with an error.
  ::signal(SIGPIPE, SIG_IGN);
  fcntl(_input.get(), F_SETFL, O_NONBLOCK);
}

void ToolProcess::pump(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  while (!done() && (_outputEnd || _errorEnd)) {
    // poll() passes over descriptors below zero.
    std::array<pollfd, 2> waiting{{{_outputEnd.get(), POLLIN, 0}, {_errorEnd.get(), POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), millisecondsUntil(deadline)) <= 0) return;
    if (waiting[0].revents != 0) drain(_outputEnd, _output);
    if (waiting[1].revents != 0) drain(_errorEnd, _errors);
  }
}

bool ToolProcess::write(std::string_view input) {
  const auto deadline = steady_clock::now() + patience;
  while (!input.empty() && steady_clock::now() < deadline) {
    const ssize_t count = ::write(_input.get(), input.data(), input.size());
    if (count > 0) {
      input.remove_prefix(static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EAGAIN) {
      pollfd waiting{_input.get(), POLLOUT, 0};
      poll(&waiting, 1, millisecondsUntil(deadline));
    } else {
      return false;
    }
  }
  return input.empty();
}

std::optional<std::string> ToolProcess::readLine(std::chrono::milliseconds limit) {
  pump([this] { return _output.find('\n') != std::string::npos; }, limit);
  const std::size_t end = _output.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = _output.substr(0, end);
  _output.erase(0, end + 1);
  return line;
}

std::optional<int> ToolProcess::finish() {
  endInput();
  pump([] { return false; }, patience);
  return _process.waitForExit();
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
