// Which file a bundle is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvid {

// Tells the file that was tried from one that was put in its place, or written anew, since.
struct BundleFile {
  // What is at `path`; nothing where there is no file.
  static std::optional<BundleFile> at(const std::string& path);
  bool operator==(const BundleFile&) const = default;

  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970
};

}  // namespace corvid
