// Lets one thread's event loop wait for one socket and for other threads.
//
// Threads: wake() from any thread, the rest on the loop's thread. A wake() that comes while nobody
// waits is kept; several count as one.
#pragma once

#include <kj/async.h>
#include <kj/exception.h>
#include <kj/timer.h>

#include "base/Log.h"
#include "base/Wakeup.h"

namespace corvid::wire {

class SocketPort final : public kj::EventPort {
 public:
  // `socket` is borrowed. Throws std::system_error where the system has no descriptor left.
  explicit SocketPort(int socket) : _socket(socket) {}

  int socket() const { return _socket; }
  // One waiter each at a time. Ready also when the peer is gone.
  kj::Promise<void> whenReadable();
  kj::Promise<void> whenWritable();
  kj::Promise<void> whenWoken();
  // Any number of waiters.
  kj::Promise<void> after(kj::Duration delay);

  bool wait() override;
  bool poll() override;
  void wake() const override { _wakeup.wake(); }

 private:
  using Waiter = kj::Own<kj::PromiseFulfiller<void>>;
  bool pollFor(int milliseconds);
  void advanceTimer();

  const int _socket;
  const Wakeup _wakeup;
  Waiter _readable;
  Waiter _writable;
  Waiter _woken;
  kj::TimerImpl _timer{kj::systemPreciseMonotonicClock().now()};
  bool _wasWoken = false;
};

// Keeps the RPC library from writing to standard error on the thread that holds one, on its stack.
class QuietLibrary final : public kj::ExceptionCallback {
 public:
  void logMessage(kj::LogSeverity, const char*, int, int, kj::String&& text) override {
    logDebug("RPC library: {}", text.cStr());
  }
  // Nobody reads the traces, and unwinding the stack for them is slow.
  StackTraceMode stackTraceMode() override { return StackTraceMode::NONE; }
};

}  // namespace corvid::wire
