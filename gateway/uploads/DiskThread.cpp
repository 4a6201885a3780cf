#include "gateway/uploads/DiskThread.h"

namespace corvid::fleet {

DiskThread::DiskThread() : _thread(startThread("gateway-disk", [this] { loop(); })) {}

DiskThread::~DiskThread() {
  {
    const MutexLock lock(_mutex);
    _isEnding = true;
  }
  _changed.notify_one();
  _thread.join();
}

void DiskThread::run(std::function<void()> work) {
  {
    const MutexLock lock(_mutex);
    _queue.push_back(std::move(work));
  }
  _changed.notify_one();
}

void DiskThread::loop() {
  for (;;) {
    std::function<void()> work;
    {
      const MutexLock lock(_mutex);
      while (_queue.empty() && !_isEnding) _changed.wait(_mutex);
      if (_queue.empty()) return;
      work = std::move(_queue.front());
      _queue.pop_front();
    }
    work();
  }
}

}  // namespace corvid::fleet
