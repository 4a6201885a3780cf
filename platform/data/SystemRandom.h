// Random numbers from the kernel.
#pragma once

#include "platform/Random.h"
#include "platform/base/Mutex.h"

namespace corvid {

class SystemRandom final : public Random {
 public:
  SystemRandom();  // seeds the generator of uniform()
  UUIDBytes uuid() override;
  double uniform() override EXCLUDES(_mutex);

 private:
  Mutex _mutex;
  unsigned short _state[3] GUARDED_BY(_mutex);
};

}  // namespace corvid
