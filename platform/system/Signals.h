// Signals that tell the daemon what to do, taken by a thread instead of a handler.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "base/Descriptor.h"
#include "base/Heartbeat.h"
#include "base/Wakeup.h"

namespace corvid {

// Threads   The constructor: main, before the first other thread, which would take the signals
// itself.
//           `received` runs on a thread of its own, for one signal after the other.
// Errors    Where the system refuses, signals do what they do without it.
class Signals {
 public:
  // Takes SIGTERM, SIGINT and SIGHUP from now on; `received` hears of those that came meanwhile
  // when watch() is called.
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Once.
  void watch(std::function<void(int signal)> received);
  Heartbeat& heartbeat() { return _heartbeat; }

 private:
  void run();

  const Wakeup _wakeup;
  Heartbeat _heartbeat{"signals", [this] { _wakeup.wake(); }};
  std::atomic<bool> _isEnding{false};
  Descriptor _signals;
  std::function<void(int)> _received;
  std::thread _thread;
};

}  // namespace corvid
