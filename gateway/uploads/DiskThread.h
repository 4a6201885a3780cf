// A thread for what waits for disks.
#pragma once

#include <deque>
#include <functional>
#include <stop_token>
#include <thread>
#include <utility>

#include "base/Mutex.h"
#include "base/Thread.h"

namespace corvid::fleet {

// Does one piece of work after the other. What has not been done when it goes is done then.
//
// Threads   any.
class DiskThread {
 public:
  DiskThread();
  ~DiskThread();
  DiskThread(const DiskThread&) = delete;
  DiskThread& operator=(const DiskThread&) = delete;

  // `work` must not throw.
  void run(std::function<void()> work) EXCLUDES(_mutex);

 private:
  void loop() EXCLUDES(_mutex);

  Mutex _mutex;
  Condition _changed;
  std::deque<std::function<void()>> _queue GUARDED_BY(_mutex);
  bool _isEnding GUARDED_BY(_mutex) = false;
  std::thread _thread;
};

}  // namespace corvid::fleet
