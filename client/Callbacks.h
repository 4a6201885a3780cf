// Where the host's callbacks run: on the session's thread, or, as the host wished, in its own event
// loop, until when they wait here.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include "base/Mutex.h"
#include "base/Wakeup.h"

namespace corvid::library {

// Threads   run: the session's thread. The rest: any. Callbacks run one after the other.
// Limits    mostWaiting and mostWaitingBytes, which the session's thread respects by asking
//           isFull() before it takes in what would call back.
// Locks     No callback is called with one held.
class Callbacks {
 public:
  static constexpr std::size_t mostWaiting = 4096;
  static constexpr std::size_t mostWaitingBytes = std::size_t{8} << 20;

  // `waits`: they wait for dispatch(). Throws std::system_error.
  explicit Callbacks(bool waits) {
    if (waits) _ready.emplace();
  }

  bool wait() const { return _ready.has_value(); }
  // Readable while callbacks wait; only where they do.
  int descriptor() const { return _ready->descriptor(); }

  // Runs `call`, now or in dispatch(). `bytes`: what it holds meanwhile.
  template <class Call>
  void run(Call call, std::size_t bytes = 0) EXCLUDES(_mutex) {
    if (wait()) return add({std::move(call), bytes});
    _runningOn = std::this_thread::get_id();
    call();
  }
  bool isFull() const EXCLUDES(_mutex);

  // Whether this thread is calling the host back.
  bool runHere() const { return _runningOn == std::this_thread::get_id(); }

  // Runs what waits; what comes meanwhile waits for the next time. Nothing where another thread is
  // at it already, or this one. `tookSome` is called when a full box has room again.
  void dispatch(const std::function<void()>& tookSome) EXCLUDES(_mutex);
  // The last callback has been added.
  void end() EXCLUDES(_mutex);
  // Runs what is left on this thread, end() included, or waits until another thread has.
  void finish() EXCLUDES(_mutex);
  // The same, in a dispatch() that is under way on this thread, as soon as its callback returns.
  void finishLater() EXCLUDES(_mutex);

 private:
  struct Waiting {
    std::function<void()> call;
    std::size_t bytes;
  };

  void add(Waiting waiting) EXCLUDES(_mutex);
  bool isFullNow() const REQUIRES(_mutex) {
    return _waiting.size() >= mostWaiting || _bytes >= mostWaitingBytes;
  }
  // Runs the first; false where none waits.
  bool runFirst(const std::function<void()>& tookSome) REQUIRES(_mutex);

  std::optional<Wakeup> _ready;
  std::atomic<std::thread::id> _runningOn{};
  mutable Mutex _mutex;
  Condition _changed;
  std::deque<Waiting> _waiting GUARDED_BY(_mutex);
  std::size_t _bytes GUARDED_BY(_mutex) = 0;
  bool _ended GUARDED_BY(_mutex) = false;
  bool _dispatching GUARDED_BY(_mutex) = false;
  bool _finishing GUARDED_BY(_mutex) = false;
};

}  // namespace corvid::library
