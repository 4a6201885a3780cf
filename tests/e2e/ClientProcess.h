// The real `corvidctl session` as a child process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Value.h"

namespace corvid {

// Runs from construction until end() or kill(), or the object or the test's process goes. One
// thread; every wait ends after DaemonProcess::patience.
//
// What the client prints is read only while the test waits for something.
class ClientProcess {
 public:
  using Condition = std::function<bool(const Dictionary& event)>;

  explicit ClientProcess(const std::string& root);
  ~ClientProcess();
  ClientProcess(ClientProcess&& other) noexcept;

  // Makes a call without waiting for it. False where the client is gone.
  bool send(const Dictionary& line);
  // Makes the call and gives its outcome; empty where there is none in time.
  Dictionary call(const Dictionary& line);
  // The events that have come so far, without waiting.
  const std::vector<Dictionary>& events();
  // Until an event that has come satisfies the condition.
  bool awaitEvent(const Condition& condition);

  void signal(int number) const;
  // Closes the client's input; gives its exit status.
  std::optional<int> end();
  // At once, without a farewell to anybody.
  void kill();

 private:
  void run(const std::string& root, int socket) const;
  // Takes what the client has printed; false at the end of its output or of the time.
  bool readUntil(std::chrono::steady_clock::time_point deadline);

  pid_t _pid = -1;
  Descriptor _socket;  // the client's standard input and output
  std::string _unread;
  std::vector<Dictionary> _outcomes;
  std::vector<Dictionary> _events;
};

}  // namespace corvid
