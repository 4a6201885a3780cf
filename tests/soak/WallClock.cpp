#include "tests/soak/WallClock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

#include "base/Descriptor.h"
#include "base/Sanitizer.h"

namespace corvid::soak {

WallClock::WallClock(const std::string& file) : _file(file) {
  const Descriptor opened(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!opened || ftruncate(opened.get(), sizeof *_offset) != 0)
    throw std::runtime_error("cannot write " + file);
  void* const place =
      mmap(nullptr, sizeof *_offset, PROT_READ | PROT_WRITE, MAP_SHARED, opened.get(), 0);
  if (place == MAP_FAILED) throw std::runtime_error("cannot map " + file);
  _offset = static_cast<std::int64_t*>(place);
}

WallClock::~WallClock() { munmap(_offset, sizeof *_offset); }

bool WallClock::canJump() { return !hasSanitizer; }

std::vector<std::string> WallClock::environment() const {
  if (!canJump()) return {};
  return {"LD_PRELOAD=" CORVID_SOAK_CLOCK, "CORVID_SOAK_CLOCK=" + _file};
}

void WallClock::set(std::chrono::seconds offset) {
  const std::chrono::nanoseconds wanted = offset;
  std::atomic_ref(*_offset).store(wanted.count());
}

}  // namespace corvid::soak
