// A real browser without a window, driven over its debugging protocol.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "base/Value.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"

namespace corvid::lab {

// Runs from construction to destruction with one page. Its profile, downloads and temporary files
// lie in a scratch folder, it asks nobody but this machine for anything, and takes all its
// processes along when it goes. The processes speak through two pipes, so that no port is open.
//
// Threads   one at a time.
// Errors    std::runtime_error where it cannot be started, ends, does not answer in time, refuses a
//           command, or a script throws.
class Browser {
 public:
  Browser();
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  // Returns once the page and its scripts have been loaded.
  void open(const std::string& url);
  // The window's inner size, in CSS pixels.
  void resize(int width, int height);
  // "light" or "dark".
  void setColorScheme(const std::string& scheme);

  // What an expression comes to, once that is there where it is a promise.
  Value evaluate(const std::string& expression);
  bool holds(const std::string& expression) { return evaluate(expression).boolean() == true; }
  std::string text(const std::string& expression);
  double number(const std::string& expression);
  // Whether it holds now or at one of the next frames.
  bool awaits(const std::string& condition);

  // As a person would: at the middle of what the selector finds, which must be in view.
  void click(const std::string& selector);
  // "Tab", "Enter", "ArrowDown", or a character.
  void press(const std::string& key);
  void type(std::string_view text);

  // PNG.
  std::string screenshot();
  // Errors and warnings so far: of scripts, of the console, of loading.
  const std::vector<std::string>& complaints() const { return _complaints; }
  void forgetComplaints() { _complaints.clear(); }

  // The folder that all its processes name in their command lines.
  const std::string& folder() const { return _scratch.path(); }

 private:
  struct Pipes;
  explicit Browser(Pipes pipes);
  ChildProcess start(const Pipes& pipes) const;

  Dictionary call(const std::string& method, Dictionary parameters = {});
  void send(const Dictionary& message);
  // The next message; waits at most until then.
  Dictionary receive(std::chrono::steady_clock::time_point deadline);
  void note(const Dictionary& event);
  std::string errors() const;

  const ScratchFolder _scratch;
  ChildProcess _process;
  Descriptor _commands;
  Descriptor _answers;
  std::string _received;
  std::int64_t _lastCall = 0;
  std::string _session;  // of the page, once there is one
  bool _isLoaded = false;
  std::vector<std::string> _complaints;
};

}  // namespace corvid::lab
