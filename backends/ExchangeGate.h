// Bounds what the events of one client keep in memory: those that are held, messages that are being
// written, and HTTP exchanges that are under way.
//
// Why: a client may produce events faster than their server takes them. It waits here, on its own
// thread, before it fills the HTTP client's queue, which many owners share. All backends that a
// client ever has share one gate: those of its single messages are many.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/Mutex.h"
#include "platform/Clock.h"
#include "platform/SharedBudget.h"

namespace corvid {

// Threads   Any. enter and memoryToWrite block; never call them with a lock held that a
//           completion could want.
// Ownership Passes keep the gate alive, so an owner may go while exchanges are under way.
class ExchangeGate : public std::enable_shared_from_this<ExchangeGate> {
 public:
  // Leaves the gate when its last copy goes.
  using Pass = std::shared_ptr<void>;

  static constexpr std::size_t clientByteLimit = std::size_t{16} << 20;

  // `user` is the client's: what its clients have together is bounded by `budgets`.
  ExchangeGate(Clock& clock, const Budgets& budgets, std::uint32_t user,
               std::size_t byteLimit = clientByteLimit)
      : _clock(clock),
        _outgoing(budgets.outgoing),
        _kept(budgets.kept),
        _user(user),
        _byteLimit(byteLimit) {}

  // Memory for a message that is going to be written; nothing where there is none within
  // `longest`.
  std::optional<SharedBudget::Share> memoryToWrite(std::chrono::milliseconds longest,
                                                   std::size_t bytes) {
    return _outgoing->take(_user, bytes, _clock, _clock.steadyNow() + longest);
  }
  // Memory for events that are held, none yet.
  SharedBudget::Share memoryToHold() { return _kept->none(_user); }

  // Waits until the `bytes` that the exchange keeps fit beside those of the others, or there are no
  // others; at most `longest`. After that the pass is given all the same, so that a stuck exchange
  // costs its owner time and never an event. The pass keeps `memory`.
  Pass enter(std::chrono::milliseconds longest, std::size_t bytes, SharedBudget::Share memory = {})
      EXCLUDES(_lock);
  std::size_t bytesOut() const EXCLUDES(_lock);

 private:
  void leave(std::size_t bytes) EXCLUDES(_lock);

  Clock& _clock;
  const std::shared_ptr<SharedBudget> _outgoing;
  const std::shared_ptr<SharedBudget> _kept;
  const std::uint32_t _user;
  const std::size_t _byteLimit;
  mutable Mutex _lock;
  Condition _left;
  std::size_t _bytesOut GUARDED_BY(_lock) = 0;
};

}  // namespace corvid
