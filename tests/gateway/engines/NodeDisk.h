// The disk of one node of a cluster.
#pragma once

#include <cstddef>
#include <string>

#include "tests/support/Scratch.h"

namespace corvid::fleet {

// A folder that is a file system of its own, ext4 on an image in memory: it can be full, and can
// lose what was not yet written through to it. For processes that have mounts of their own
// (takeOwnMounts), as the superuser; only these and their children see it.
class NodeDisk {
 public:
  // `folder` is made. std::runtime_error where there is no file system to be had.
  NodeDisk(std::string folder, std::size_t megabytes);
  ~NodeDisk();
  NodeDisk(const NodeDisk&) = delete;
  NodeDisk& operator=(const NodeDisk&) = delete;

  void fill() const;
  void unfill() const;

  // The power fails: what stands on the disk now is all that is left. `takePicture` while the
  // node's processes are about to be killed or just were, `restorePicture` when none has a file
  // open there.
  void takePicture();
  void restorePicture();

 private:
  void mount() const;
  void unmount() const;

  const std::string _folder;
  const std::string _image;    // below /dev/shm
  const std::string _picture;  // beside it
};

}  // namespace corvid::fleet
