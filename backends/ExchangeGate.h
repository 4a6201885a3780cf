// Bounds what the HTTP exchanges of one owner that are under way keep in memory.
//
// Why: a client may produce events faster than their server takes them. It waits here, on its own
// thread, before it fills the HTTP client's queue, which many owners share. All backends that a
// client ever has share one gate: those of its single messages are many.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>

#include "base/Mutex.h"
#include "platform/Clock.h"

namespace corvid {

// Threads   Any. enter blocks; never call it with a lock held that a completion could want.
// Ownership Passes keep the gate alive, so an owner may go while exchanges are under way.
class ExchangeGate : public std::enable_shared_from_this<ExchangeGate> {
 public:
  // Leaves the gate when its last copy goes.
  using Pass = std::shared_ptr<void>;

  static constexpr std::size_t clientByteLimit = std::size_t{16} << 20;

  explicit ExchangeGate(Clock& clock, std::size_t byteLimit = clientByteLimit)
      : _clock(clock), _byteLimit(byteLimit) {}

  // Waits until the `bytes` that the exchange keeps fit beside those of the others, or there are no
  // others; at most `patience`. After that the pass is given all the same, so that a stuck exchange
  // costs its owner time and never an event.
  Pass enter(std::chrono::milliseconds patience, std::size_t bytes) EXCLUDES(_lock);
  std::size_t bytesOut() const EXCLUDES(_lock);

 private:
  void leave(std::size_t bytes) EXCLUDES(_lock);

  Clock& _clock;
  const std::size_t _byteLimit;
  mutable Mutex _lock;
  std::condition_variable_any _left;
  std::size_t _bytesOut GUARDED_BY(_lock) = 0;
};

}  // namespace corvid
