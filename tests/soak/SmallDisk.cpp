#include "tests/soak/SmallDisk.h"

#include <fmt/format.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace corvid::soak {

SmallDisk::SmallDisk(std::string folder, std::size_t bytes) : _folder(std::move(folder)) {
  std::filesystem::create_directories(_folder);
  const std::string options = fmt::format("size={},mode=0700", bytes);
  if (mount("soak", _folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    throw std::runtime_error(fmt::format("cannot mount {}: {}", _folder, std::strerror(errno)));
}

SmallDisk::~SmallDisk() { umount2(_folder.c_str(), MNT_DETACH); }

}  // namespace corvid::soak
