#include "client/Callbacks.h"

namespace corvid::library {

bool Callbacks::isFull() const {
  const MutexLock lock(_mutex);
  return isFullNow();
}

void Callbacks::add(Waiting waiting) {
  const MutexLock lock(_mutex);
  _bytes += waiting.bytes;
  _waiting.push_back(std::move(waiting));
  if (_waiting.size() == 1) _ready->wake();
  _changed.notify_all();
}

bool Callbacks::runFirst(const std::function<void()>& tookSome) {
  if (_waiting.empty()) return false;
  const bool wasFull = isFullNow();
  Waiting first = std::move(_waiting.front());
  _waiting.pop_front();
  _bytes -= first.bytes;
  // From the first that comes after the last on, there is something again.
  if (_waiting.empty()) _ready->drain();
  const bool hasRoom = wasFull && !isFullNow();
  _mutex.unlock();
  if (hasRoom && tookSome) tookSome();
  _runningOn = std::this_thread::get_id();
  [&]() noexcept { first.call(); }();  // as on the session's thread, a host's exception ends it
  first.call = nullptr;
  _runningOn = std::thread::id();
  _mutex.lock();
  return true;
}

void Callbacks::dispatch(const std::function<void()>& tookSome) {
  const MutexLock lock(_mutex);
  if (_dispatching) return;
  _dispatching = true;
  // What a callback brings about waits for the next turn of the host's loop.
  for (std::size_t left = _waiting.size(); left > 0 && !_finishing; --left)
    if (!runFirst(tookSome)) break;
  if (!_waiting.empty()) _ready->wake();  // whoever waits for edges gets one
  while (_finishing && (runFirst(nullptr) || !_ended))
    if (_waiting.empty() && !_ended) _changed.wait(_mutex);
  _dispatching = false;
  _changed.notify_all();
}

void Callbacks::end() {
  const MutexLock lock(_mutex);
  _ended = true;
  _changed.notify_all();
}

void Callbacks::finish() {
  const MutexLock lock(_mutex);
  while (_dispatching) _changed.wait(_mutex);
  _dispatching = true;
  while (runFirst(nullptr) || !_ended)
    if (_waiting.empty() && !_ended) _changed.wait(_mutex);
  _dispatching = false;
}

void Callbacks::finishLater() {
  const MutexLock lock(_mutex);
  _finishing = true;
}

}  // namespace corvid::library
