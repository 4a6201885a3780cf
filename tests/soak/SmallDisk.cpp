#include "tests/soak/SmallDisk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "base/Descriptor.h"

namespace corvid::soak {

bool SmallDisk::becomeAlone() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

SmallDisk::SmallDisk(std::string folder, std::size_t bytes) : _folder(std::move(folder)) {
  std::filesystem::create_directories(_folder);
  const std::string options = fmt::format("size={},mode=0700", bytes);
  if (mount("soak", _folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    throw std::runtime_error(fmt::format("cannot mount {}: {}", _folder, std::strerror(errno)));
}

SmallDisk::~SmallDisk() { umount2(_folder.c_str(), MNT_DETACH); }

void SmallDisk::fill() const {
  const Descriptor file(open(filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  std::array<char, 65536> piece{};
  while (write(file.get(), piece.data(), piece.size()) > 0) continue;
  while (write(file.get(), piece.data(), 1) > 0) continue;
}

void SmallDisk::unfill() const { unlink(filler().c_str()); }

}  // namespace corvid::soak
