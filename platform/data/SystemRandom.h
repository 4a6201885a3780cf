// Random numbers of the system.
#pragma once

#include <array>

#include "base/Mutex.h"
#include "platform/Random.h"

namespace corvid {

// Any thread. UUIDs come from the cryptographic generator; the draws of uniform() do not, and tell
// whoever sees a few of them all later ones.
class SystemRandom final : public Random {
 public:
  using Seed = std::array<unsigned short, 3>;

  SystemRandom();
  // With this state of the 48-bit generator, low 16 bits first.
  explicit SystemRandom(Seed seed) : _state(seed) {}

  UUIDBytes uuid() override;
  double uniform() override EXCLUDES(_mutex);

 private:
  Mutex _mutex;
  Seed _state GUARDED_BY(_mutex);
};

}  // namespace corvid
