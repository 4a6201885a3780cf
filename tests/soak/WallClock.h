// The wall clock of a daemon, which can be put wrong without touching the machine's.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace corvid::soak {

// A library that is loaded into the daemon before all others adds the offset to what the system
// says of the time of day; steady clocks and waits are the system's.
class WallClock {
 public:
  // `file` holds the offset; std::runtime_error where it cannot be written.
  explicit WallClock(const std::string& file);
  ~WallClock();
  WallClock(const WallClock&) = delete;
  WallClock& operator=(const WallClock&) = delete;

  // For daemons that are to go by it. Empty in a build with sanitizers, which must be first
  // themselves: their clock is the machine's.
  std::vector<std::string> environment() const;
  static bool canJump();
  void set(std::chrono::seconds offset);

 private:
  const std::string _file;
  std::int64_t* _offset = nullptr;  // in the file, nanoseconds
};

}  // namespace corvid::soak
