#include "platform/data/SystemRandom.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <span>
#include <system_error>

namespace corvid {

namespace {

// The kernel's generator: no library to load, and it cannot run dry after boot.
void fillWithRandomBytes(std::span<std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t got = getrandom(bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw std::system_error(errno, std::generic_category(), "getrandom");
    bytes = bytes.subspan(static_cast<std::size_t>(got));
  }
}

}  // namespace

SystemRandom::SystemRandom() { fillWithRandomBytes(std::as_writable_bytes(std::span(_state))); }

UUIDBytes SystemRandom::uuid() {
  UUIDBytes bytes;
  fillWithRandomBytes(std::as_writable_bytes(std::span(bytes)));
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the standard variant
  return bytes;
}

double SystemRandom::uniform() {
  const MutexLock lock(_mutex);
  return erand48(_state);
}

}  // namespace corvid
