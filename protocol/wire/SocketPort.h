// Lets one thread's event loop wait for one socket and for other threads.
//
// Threads: wake() from any thread, the rest on the loop's thread. A wake() that comes while nobody
// waits is kept; several count as one.
#pragma once

#include <kj/async.h>

namespace corvid::wire {

class SocketPort final : public kj::EventPort {
 public:
  // `socket` is borrowed. Throws std::system_error where the system has no descriptor left.
  explicit SocketPort(int socket);
  ~SocketPort();
  SocketPort(const SocketPort&) = delete;
  SocketPort& operator=(const SocketPort&) = delete;

  int socket() const { return _socket; }
  // One waiter each at a time. Ready also when the peer is gone.
  kj::Promise<void> whenReadable();
  kj::Promise<void> whenWritable();
  kj::Promise<void> whenWoken();

  bool wait() override;
  bool poll() override;
  void wake() const override;

 private:
  using Waiter = kj::Own<kj::PromiseFulfiller<void>>;
  bool pollFor(int milliseconds);

  const int _socket;
  const int _wakeup;
  Waiter _readable;
  Waiter _writable;
  Waiter _woken;
  bool _wasWoken = false;
};

}  // namespace corvid::wire
