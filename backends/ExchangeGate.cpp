#include "backends/ExchangeGate.h"

#include <utility>

namespace corvid {

ExchangeGate::Pass ExchangeGate::enter(std::chrono::milliseconds longest, std::size_t bytes,
                                       SharedBudget::Share memory) {
  {
    MutexLock lock(_lock);
    _clock.waitUntil(_left, _lock, _clock.steadyNow() + longest, [&]() NO_THREAD_SAFETY_ANALYSIS {
      return _bytesOut == 0 || _bytesOut + bytes <= _byteLimit;
    });
    _bytesOut += bytes;
  }
  struct Entered {
    ~Entered() { gate->leave(bytes); }
    std::shared_ptr<ExchangeGate> gate;
    std::size_t bytes;
    SharedBudget::Share memory;
  };
  return std::shared_ptr<Entered>(new Entered{shared_from_this(), bytes, std::move(memory)});
}

std::size_t ExchangeGate::bytesOut() const {
  MutexLock lock(_lock);
  return _bytesOut;
}

void ExchangeGate::leave(std::size_t bytes) {
  {
    MutexLock lock(_lock);
    _bytesOut -= bytes;
  }
  // All: what fits of those that wait need not be the first.
  _left.notify_all();
}

}  // namespace corvid
