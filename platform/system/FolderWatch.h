// Tells when the files of a folder have changed.
#pragma once

#include <atomic>
#include <string>

#include "base/Descriptor.h"

namespace corvid {

// Sees files of the folder that are written, added, removed, renamed or given other rights, and the
// folder itself made, removed or replaced, also by a link, as long as the folder above it stays. A
// change elsewhere in the folder above counts too. What is behind a link in the folder is not seen.
//
// The folder need not exist; what exists is watched from the next watch() on.
//
// Threads: any.
class FolderWatch {
 public:
  // Where the system gives no watch, nothing is ever told; a warning says so once.
  explicit FolderWatch(const std::string& folder);

  // Readable from a change to the next takeChanges().
  int descriptor() const { return _notifications.get(); }
  // Forgets the changes so far; those from here on make the descriptor readable again.
  void takeChanges() const;
  // Watches what stands under the folder's name now. Cheap where it is watched already.
  void watch() const;

 private:
  void warn(const std::string& path) const;

  const std::string _folder;
  const std::string _above;
  const Descriptor _notifications;
  mutable std::atomic<bool> _hasWarned = false;
};

}  // namespace corvid
