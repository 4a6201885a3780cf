// How tests wait for what other threads and processes do.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "base/Sanitizer.h"

namespace corvid {

// The most that a test waits for what must come: long enough for a machine with much to do, so that
// it passes only where something is broken.
inline constexpr std::chrono::seconds patience{hasSanitizer ? 60 : 20};

// Looks at the condition again and again, with `pause` between two looks. False where it does not
// hold within `limit`.
template <class Condition>
[[nodiscard]] bool waitUntil(Condition condition, std::chrono::milliseconds limit = patience,
                             std::chrono::microseconds pause = std::chrono::milliseconds(1)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
  }
  return true;
}

// A mutex with a bounded wait for a condition on what it guards.
class Notice {
 public:
  void change(const std::function<void()>& change) {
    const std::lock_guard lock(_mutex);
    change();
    // With the lock held, so that whoever waits may end the notice's life.
    _changed.notify_all();
  }
  bool await(const std::function<bool()>& condition) {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, patience, condition);
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
};

}  // namespace corvid
