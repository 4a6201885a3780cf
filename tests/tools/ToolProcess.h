// A command-line program as a child process, with pipes to its three streams.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"

namespace corvid {

// Runs from construction until it ends by itself or the object goes; then it is killed. CORVID_ROOT
// is not in its environment. Every wait is bounded, so that a broken program fails a test and never
// hangs it.
class ToolProcess {
 public:
  ToolProcess(std::string program, std::vector<std::string> arguments);
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  pid_t pid() const { return _pid; }
  // Hands over everything, as far as the program reads.
  void write(std::string_view input);
  void endInput() { _input.reset(); }
  // The next line of standard output without its end; nothing where the output ends first.
  std::optional<std::string> readLine();
  // Ends the input and reads both outputs to their end. The exit status, or the negative number of
  // the signal that ended the program; nothing where it goes on.
  std::optional<int> finish();

  // What has been read and not been taken by readLine.
  const std::string& output() const { return _output; }
  const std::string& errors() const { return _errors; }

 private:
  // Reads until `done` says so, both outputs have ended, or patience has.
  void pump(const std::function<bool()>& done);

  pid_t _pid = -1;
  Descriptor _input;
  Descriptor _outputEnd;
  Descriptor _errorEnd;
  std::string _output;
  std::string _errors;
  bool _isReaped = false;
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
