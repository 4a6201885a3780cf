#include "protocol/wire/SocketPort.h"

#include <poll.h>

#include <array>
#include <cstdint>
#include <utility>

namespace corvid::wire {

namespace {

using Waiter = kj::Own<kj::PromiseFulfiller<void>>;

kj::Promise<void> wait(Waiter& waiter) {
  auto pair = kj::newPromiseAndFulfiller<void>();
  waiter = kj::mv(pair.fulfiller);
  return kj::mv(pair.promise);
}

bool isWanted(Waiter& waiter) { return waiter.get() != nullptr && waiter->isWaiting(); }

void fulfil(Waiter& waiter) {
  if (Waiter taken = kj::mv(waiter); taken.get() != nullptr) taken->fulfill();
}

}  // namespace

kj::Promise<void> SocketPort::whenReadable() { return wire::wait(_readable); }
kj::Promise<void> SocketPort::whenWritable() { return wire::wait(_writable); }
kj::Promise<void> SocketPort::whenWoken() {
  if (std::exchange(_wasWoken, false)) return kj::READY_NOW;
  return wire::wait(_woken);
}

kj::Promise<void> SocketPort::after(kj::Duration delay) {
  advanceTimer();
  return _timer.afterDelay(delay);
}

void SocketPort::advanceTimer() { _timer.advanceTo(kj::systemPreciseMonotonicClock().now()); }

bool SocketPort::wait() {
  if (_timer.nextEvent() == nullptr) return pollFor(-1);
  constexpr std::uint64_t hour = 3'600'000;
  const auto now = kj::systemPreciseMonotonicClock().now();
  const std::uint64_t delay =
      _timer.timeoutToNextEvent(now, kj::MILLISECONDS, hour).orDefault(hour);
  const bool wasWoken = pollFor(static_cast<int>(delay));
  advanceTimer();
  return wasWoken;
}

bool SocketPort::poll() { return pollFor(0); }

bool SocketPort::pollFor(int milliseconds) {
  short events = 0;
  if (isWanted(_readable)) events |= POLLIN;
  if (isWanted(_writable)) events |= POLLOUT;
  std::array<pollfd, 2> ready{
      {{_wakeup.descriptor(), POLLIN, 0}, {events != 0 ? _socket : -1, events, 0}}};
  if (::poll(ready.data(), ready.size(), milliseconds) <= 0) return false;

  constexpr short gone = POLLHUP | POLLERR | POLLNVAL;
  if ((ready[1].revents & (POLLIN | gone)) != 0) fulfil(_readable);
  if ((ready[1].revents & (POLLOUT | gone)) != 0) fulfil(_writable);
  if (ready[0].revents == 0) return false;
  _wakeup.drain();
  if (isWanted(_woken))
    fulfil(_woken);
  else
    _wasWoken = true;
  return true;
}

}  // namespace corvid::wire
