// Ends the wait of a thread that sleeps in poll().
#pragma once

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "base/Descriptor.h"

namespace corvid {

// The waiting thread polls descriptor() and drains before it looks for news, so that none is lost.
// A wake() that finds nobody waiting is kept; several count as one.
//
// Threads: any; wake() also in a signal handler.
class Wakeup {
 public:
  // Throws std::system_error where the system has no descriptor left.
  Wakeup() : _event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!_event) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  // Readable from wake() to drain().
  int descriptor() const { return _event.get(); }
  // Fails only where the count is full, and then the sleeper is woken anyway.
  void wake() const { eventfd_write(_event.get(), 1); }
  void drain() const {
    eventfd_t count = 0;
    eventfd_read(_event.get(), &count);
  }

 private:
  const Descriptor _event;
};

}  // namespace corvid
