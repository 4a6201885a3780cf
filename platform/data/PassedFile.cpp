#include "platform/data/PassedFile.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace corvid {

namespace {

// All that statfs tells of a kind of file system.
using Magic = decltype(std::declval<struct statfs>().f_type);
constexpr std::array<Magic, 10> kernelsOwn{
    PROC_SUPER_MAGIC, SYSFS_MAGIC, DEBUGFS_MAGIC,      TRACEFS_MAGIC,       SECURITYFS_MAGIC,
    SELINUX_MAGIC,    SMACK_MAGIC, CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, EFIVARFS_MAGIC};

}  // namespace

FileAttributes PassedFile::attributes() {
  struct stat status {};
  struct statfs system {};
  if (fstat(_file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  if (fstatfs(_file.get(), &system) != 0 ||
      std::ranges::find(kernelsOwn, system.f_type) != kernelsOwn.end())
    return {};
  return {.isRegularFile = true, .size = static_cast<std::uint64_t>(status.st_size)};
}

std::optional<std::string> PassedFile::read(std::size_t offset, std::size_t size) {
  std::string content(size, '\0');
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t count = pread(_file.get(), content.data() + filled, size - filled,
                                static_cast<off_t>(offset + filled));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  content.resize(filled);
  return content;
}

}  // namespace corvid
