#include "backends/ExchangeGate.h"

namespace corvid {

ExchangeGate::Pass ExchangeGate::enter(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  {
    MutexLock lock(_lock);
    while (_passesOut >= _limit &&
           _left.wait_until(_lock, deadline) == std::cv_status::no_timeout) {
    }
    ++_passesOut;
  }
  return Pass(this, [gate = shared_from_this()](void*) { gate->leave(); });
}

std::size_t ExchangeGate::passesOut() const {
  MutexLock lock(_lock);
  return _passesOut;
}

void ExchangeGate::leave() {
  {
    MutexLock lock(_lock);
    --_passesOut;
  }
  _left.notify_one();
}

}  // namespace corvid
