// A folder with a file system of its own, which can be full.
#pragma once

#include <cstddef>
#include <string>

namespace corvid::soak {

// In memory, for a process that has mounts of its own (tests/support/Disks.h).
class SmallDisk {
 public:
  // `folder` is made where it is missing; std::runtime_error where it cannot be.
  SmallDisk(std::string folder, std::size_t bytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  const std::string& folder() const { return _folder; }

 private:
  const std::string _folder;
};

}  // namespace corvid::soak
