// A folder with a file system of its own, which can be full.
#pragma once

#include <cstddef>
#include <string>

namespace corvid::soak {

// In memory, and seen by this process and its children only. Before any other thread runs the
// process must have had becomeAlone().
class SmallDisk {
 public:
  // Gives the process mounts of its own; false where the system does not let it.
  static bool becomeAlone();

  // `folder` is made where it is missing; std::runtime_error where it cannot be.
  SmallDisk(std::string folder, std::size_t bytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  void fill() const;
  void unfill() const;

 private:
  std::string filler() const { return _folder + "/filler"; }

  const std::string _folder;
};

}  // namespace corvid::soak
