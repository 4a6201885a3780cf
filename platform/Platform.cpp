#include "platform/Platform.h"

#include <atomic>
#include <cassert>

namespace corvid {

namespace {
std::atomic<Platform*> installed{nullptr};
}

Platform& Platform::current() {
  Platform* platform = installed.load(std::memory_order_acquire);
  assert(platform != nullptr);
  return *platform;
}

void Platform::install(Platform* platform) { installed.store(platform, std::memory_order_release); }

}  // namespace corvid
