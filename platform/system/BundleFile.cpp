#include "platform/system/BundleFile.h"

#include <sys/stat.h>

namespace corvid {

std::optional<BundleFile> BundleFile::at(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return BundleFile{.device = status.st_dev,
                    .inode = status.st_ino,
                    .size = status.st_size,
                    .modified = status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
}

}  // namespace corvid
