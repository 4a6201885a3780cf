// The real `corvidctl session` as a child process.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tests/support/ToolProcess.h"

namespace corvid {

// Runs as a ToolProcess does, until end() or kill(). One thread.
//
// What the client prints is read only while the test waits for something.
class ClientProcess {
 public:
  using Condition = std::function<bool(const Dictionary& event)>;

  explicit ClientProcess(const std::string& root)
      : _process(CORVIDCTL_PROGRAM, {"--root", root, "session"}) {}

  // Makes a call without waiting for it. False where the client is gone.
  bool send(const Dictionary& line);
  // Makes the call and gives its outcome; empty where there is none in time.
  Dictionary call(const Dictionary& line);
  // The events that have come so far, without waiting.
  const std::vector<Dictionary>& events();
  // Until an event that has come satisfies the condition.
  bool awaitEvent(const Condition& condition);

  void signal(int number) const { _process.signal(number); }
  // Closes the client's input; gives its exit status.
  std::optional<int> end();
  // At once, without a farewell to anybody.
  void kill() { _process.kill(); }

 private:
  // Takes a line that the client has printed; false at the end of its output or of the time.
  bool readLine(std::chrono::steady_clock::time_point deadline);

  ToolProcess _process;
  std::vector<Dictionary> _outcomes;
  std::vector<Dictionary> _events;
};

}  // namespace corvid
