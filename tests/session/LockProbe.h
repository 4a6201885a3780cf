// Finds out whether a mutex is held at this moment by the thread that asks.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "base/Mutex.h"

namespace corvid {

class LockProbe {
 public:
  explicit LockProbe(RecursiveMutex& mutex) : _mutex(mutex) {}
  // Waits for the threads that asked in vain: the mutex must be free by now.
  ~LockProbe() {
    for (std::thread& thread : _threads) thread.join();
  }

  bool isHeld() { return !acquiredWithin(std::chrono::milliseconds(50)); }
  bool isFree() { return acquiredWithin(std::chrono::seconds(10)); }

 private:
  bool acquiredWithin(std::chrono::milliseconds time) {
    auto acquired = std::make_shared<std::promise<void>>();
    auto future = acquired->get_future();
    _threads.emplace_back([&mutex = _mutex, acquired] {
      const RecursiveLock lock(mutex);
      acquired->set_value();
    });
    return future.wait_for(time) == std::future_status::ready;
  }

  RecursiveMutex& _mutex;
  std::vector<std::thread> _threads;
};

}  // namespace corvid
