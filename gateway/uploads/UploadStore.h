// Files of clients, each on the disk before its client hears so.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "gateway/Rule.h"
#include "gateway/body/Digest.h"
#include "gateway/body/Gunzip.h"
#include "gateway/uploads/UploadQuery.h"

namespace corvid::fleet {

// A folder of files under the names of what they are:
//   XX/ID.gz    the file as it came; XX are the first two digits of ID
//   XX/ID.json  of which device, session and name it is, its size as sent and unpacked, and when it
//               came
//   incoming/   files that are still coming
// ID is the SHA-256 of the file as it came and of device, session and name, in hexadecimal, so that
// a file that comes again is stored once. Any number of gateways may share a folder.
//
// Threads   any; a file one thread at a time.
class UploadStore {
 public:
  // Makes the folders and removes what an ended process left in incoming/ more than a day ago.
  // Throws std::system_error where the folder cannot be used.
  explicit UploadStore(std::string folder);

  // A file that is coming. Removed where it goes before it is stored.
  class File {
   public:
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // The rule that is broken; then nothing else is called.
    std::optional<Rule> write(std::string_view bytes);
    // The file is whole: writes it to the disk and gives it its name. `received`: seconds since
    // 1970.
    std::optional<Rule> store(const UploadQuery& query, double received);

   private:
    friend class UploadStore;
    File(std::string folder, std::string path, Descriptor descriptor);
    std::optional<Rule> check(std::string_view bytes);

    const std::string _folder;
    std::string _path;
    Descriptor _descriptor;
    Gunzip _gunzip;
    Digest _digest;
    std::size_t _sent = 0;
    std::size_t _unpacked = 0;
  };

  // Null where the disk has no file for it.
  std::unique_ptr<File> begin() const;
  // On the disk, for anybody; nothing where the system does not say.
  std::optional<std::size_t> freeSpace() const;

 private:
  const std::string _folder;
};

}  // namespace corvid::fleet
