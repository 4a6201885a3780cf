// A command-line program as a child process, with pipes to its three streams.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"

namespace corvid {

// Runs as a ChildProcess does. Every wait is bounded, so that a broken program fails a test and
// never hangs it.
class ToolProcess {
 public:
  ToolProcess(std::string program, std::vector<std::string> arguments);

  pid_t pid() const { return _process.pid(); }
  void signal(int number) const { _process.signal(number); }
  void kill() { _process.kill(); }
  // Hands over everything, as far as the program reads; false where it does not read all of it.
  bool write(std::string_view input);
  void endInput() { _input.reset(); }
  // The next line of standard output without its end; nothing where it does not come.
  std::optional<std::string> readLine(std::chrono::milliseconds limit = patience);
  // Ends the input and reads both outputs to their end; then as ChildProcess::waitForExit.
  std::optional<int> finish();

  // What has been read and not been taken by readLine.
  const std::string& output() const { return _output; }
  const std::string& errors() const { return _errors; }

 private:
  struct Pipes;
  ToolProcess(std::vector<std::string> command, Pipes pipes);
  // Reads until `done` says so, both outputs have ended, or the time is up.
  void pump(const std::function<bool()>& done, std::chrono::milliseconds limit);

  ChildProcess _process;
  Descriptor _input;
  Descriptor _outputEnd;
  Descriptor _errorEnd;
  std::string _output;
  std::string _errors;
};

// A program that ran to its end.
struct ToolResult {
  std::optional<int> status;
  std::string output;
  std::string errors;
};
ToolResult runTool(std::string program, std::vector<std::string> arguments,
                   std::string_view input = {});

// The lines of a text, without their ends.
std::vector<std::string> linesOf(std::string_view text);

}  // namespace corvid
