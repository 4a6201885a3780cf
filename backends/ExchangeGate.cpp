#include "backends/ExchangeGate.h"

namespace corvid {

ExchangeGate::Pass ExchangeGate::enter(std::chrono::milliseconds patience, std::size_t bytes) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  {
    MutexLock lock(_lock);
    while (!hasRoomFor(bytes) && _left.wait_until(_lock, deadline) == std::cv_status::no_timeout) {
    }
    ++_passesOut;
    _bytesOut += bytes;
  }
  return Pass(this, [gate = shared_from_this(), bytes](void*) { gate->leave(bytes); });
}

std::size_t ExchangeGate::passesOut() const {
  MutexLock lock(_lock);
  return _passesOut;
}

bool ExchangeGate::hasRoomFor(std::size_t bytes) const {
  if (_passesOut == 0) return true;
  return _passesOut < _limit && _bytesOut + bytes <= _byteLimit;
}

void ExchangeGate::leave(std::size_t bytes) {
  {
    MutexLock lock(_lock);
    --_passesOut;
    _bytesOut -= bytes;
  }
  // All: what fits of those that wait need not be the first.
  _left.notify_all();
}

}  // namespace corvid
