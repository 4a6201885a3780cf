// What a daemon has for itself.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace corvid::soak {

struct Belongings {
  std::size_t descriptors = 0;  // but for connections
  std::size_t connections = 0;  // by TCP: it keeps them for a while after the last exchange
  std::size_t threads = 0;
  std::size_t memory = 0;  // bytes, resident

  static Belongings of(pid_t process);
};

// The most connections that it may keep.
inline constexpr std::size_t mostConnections = 48;

// What a daemon at rest has more than at an earlier rest; none where it has not. Of its memory
// `spare` bytes more are none.
std::vector<std::string> complaintsAbout(const Belongings& now, const Belongings& before,
                                         std::size_t spare);

}  // namespace corvid::soak
