// Work that other threads give to a worker's thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "base/Mutex.h"

namespace corvid::fleet {

// What is posted runs on the thread of the loop, in order, unless the mailbox is closed before. May
// outlive the loop.
//
// Threads   post(): any. close(): the loop's, or any once the loop runs no more.
class Mailbox : public std::enable_shared_from_this<Mailbox> {
 public:
  explicit Mailbox(boost::asio::io_context& loop) : _loop(&loop) {}

  void post(std::function<void()> letter) EXCLUDES(_mutex) {
    const MutexLock lock(_mutex);
    if (!_loop) return;
    _letters.push_back(std::move(letter));
    // One wake-up for however many come before the loop looks.
    if (_letters.size() == 1)
      boost::asio::post(*_loop, [self = shared_from_this()] { self->deliver(); });
  }
  void close() EXCLUDES(_mutex) {
    std::vector<std::function<void()>> dropped;
    const MutexLock lock(_mutex);
    _loop = nullptr;
    dropped.swap(_letters);
  }

 private:
  void deliver() EXCLUDES(_mutex) {
    std::vector<std::function<void()>> letters;
    {
      const MutexLock lock(_mutex);
      letters.swap(_letters);
    }
    for (const auto& letter : letters) letter();
  }

  Mutex _mutex;
  boost::asio::io_context* _loop GUARDED_BY(_mutex);
  std::vector<std::function<void()>> _letters GUARDED_BY(_mutex);
};

}  // namespace corvid::fleet
