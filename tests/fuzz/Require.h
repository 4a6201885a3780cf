// What a fuzz target claims.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace corvid::fuzz {

// Ends the process, which is a finding, where the condition does not hold. The rest is the caller's
// place.
inline void require(bool condition, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
  std::abort();
}

}  // namespace corvid::fuzz
