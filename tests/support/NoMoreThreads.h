// A process that may start no thread.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

namespace corvid {

// In a child, for good: the system refuses each further thread. It is no limit for the superuser,
// so the process becomes another user.
inline bool endThreads() {
  constexpr uid_t nobody = 65534;
  const rlimit none{0, 0};
  return (getuid() != 0 || setuid(nobody) == 0) && setrlimit(RLIMIT_NPROC, &none) == 0;
}

}  // namespace corvid
