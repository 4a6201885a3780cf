#include "platform/data/SystemRandom.h"

#include <sys/random.h>

#include <cstdlib>

namespace corvid {

namespace {

// Without random bytes identifiers would not be unique: there is no going on. They come straight
// from the kernel: OpenSSL's generator would be set up at each start, for 2 MB and a millisecond.
template <class T>
T randomBytes() {
  T value;
  if (getentropy(value.data(), sizeof value) != 0) std::abort();
  return value;
}

}  // namespace

SystemRandom::SystemRandom() : SystemRandom(randomBytes<Seed>()) {}

UUIDBytes SystemRandom::uuid() {
  auto bytes = randomBytes<UUIDBytes>();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // variant of RFC 4122
  return bytes;
}

double SystemRandom::uniform() {
  const MutexLock lock(_mutex);
  return erand48(_state.data());
}

}  // namespace corvid
