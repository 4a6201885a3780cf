// The file of one upload, open for reading, and the right to remove it, as the daemon gets them.
//
// It is opened when the host makes the call: whatever stands under its name later is another file,
// which is neither read nor removed.
//
// Threads: none of its own; one at a time.
#pragma once

#include <memory>
#include <string>

#include "base/Descriptor.h"

namespace corvid::library {

class UploadedFile {
 public:
  // Opens what stands at the absolute path, without following a link in its last component and
  // without waiting for anybody. `file` stays null where that is no regular file or may not be
  // read. A result code of the library: CORVID_ERROR_TOO_LARGE past limits::uploadBytes,
  // CORVID_ERROR_SYSTEM where the system has no descriptor left.
  static int open(const std::string& path, std::shared_ptr<UploadedFile>& file);

  UploadedFile(Descriptor folder, std::string name, Descriptor file);

  int descriptor() const { return _file.get(); }
  // Removes it, if it is still what stands in its folder under its name.
  void remove() const;

 private:
  const Descriptor _folder;
  const std::string _name;
  const Descriptor _file;
};

}  // namespace corvid::library
