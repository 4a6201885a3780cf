#include "tests/support/Disks.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>

#include "base/Descriptor.h"

namespace corvid {

namespace {

std::string filler(const std::string& folder) { return folder + "/filler"; }

}  // namespace

bool takeOwnMounts() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void fillDisk(const std::string& folder) {
  const Descriptor file(open(filler(folder).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  std::array<char, 65536> piece{};
  while (write(file.get(), piece.data(), piece.size()) > 0) continue;
  while (write(file.get(), piece.data(), 1) > 0) continue;
}

void unfillDisk(const std::string& folder) { unlink(filler(folder).c_str()); }

}  // namespace corvid
