#include "platform/system/Landlock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Descriptor.h"

// Younger than the oldest headers this builds with.
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15)
#endif
#ifndef LANDLOCK_ACCESS_NET_BIND_TCP
#define LANDLOCK_ACCESS_NET_BIND_TCP (1ULL << 0)
#define LANDLOCK_ACCESS_NET_CONNECT_TCP (1ULL << 1)
#define LANDLOCK_RULE_NET_PORT 2
#endif
#ifndef LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET
#define LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET (1ULL << 0)
#define LANDLOCK_SCOPE_SIGNAL (1ULL << 1)
#endif

namespace corvid {

namespace {

// landlock_ruleset_attr as of the sixth ABI; an older kernel takes a longer one as long as what it
// does not know is zero.
struct RulesetAttributes {
  std::uint64_t handledFiles = 0;
  std::uint64_t handledNetwork = 0;
  std::uint64_t scoped = 0;
};

constexpr std::uint64_t readRights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t writeRights = readRights | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                      LANDLOCK_ACCESS_FS_TRUNCATE | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                      LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                                      LANDLOCK_ACCESS_FS_MAKE_DIR;
constexpr std::uint64_t socketRights =
    LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_REMOVE_FILE;
// The rights that exist for what is no folder.
constexpr std::uint64_t fileRights =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_TRUNCATE;

// Everything that the kernel can refuse; executing and device controls are granted nowhere.
RulesetAttributes attributesFor(const SandboxProfile& profile, long abi) {
  RulesetAttributes ruleset;
  ruleset.handledFiles = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
  if (abi >= 2) ruleset.handledFiles |= LANDLOCK_ACCESS_FS_REFER;
  if (abi >= 3) ruleset.handledFiles |= LANDLOCK_ACCESS_FS_TRUNCATE;
  if (abi >= 5) ruleset.handledFiles |= LANDLOCK_ACCESS_FS_IOCTL_DEV;
  if (abi >= 4) {
    ruleset.handledNetwork = LANDLOCK_ACCESS_NET_BIND_TCP;
    if (!profile.allowsTCPConnect || profile.tcpPorts)
      ruleset.handledNetwork |= LANDLOCK_ACCESS_NET_CONNECT_TCP;
  }
  if (abi >= 6) ruleset.scoped = LANDLOCK_SCOPE_ABSTRACT_UNIX_SOCKET | LANDLOCK_SCOPE_SIGNAL;
  return ruleset;
}

// landlock_net_port_attr.
struct PortRule {
  std::uint64_t allowedAccess = LANDLOCK_ACCESS_NET_CONNECT_TCP;
  std::uint64_t port = 0;
};

std::string systemError(std::string_view what) {
  return fmt::format("{}: {}", what, std::strerror(errno));
}

// False, with errno, when the kernel refuses. A path that does not exist is passed over.
bool allow(const Descriptor& ruleset, const std::string& path, std::uint64_t rights) {
  const Descriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file) return errno == ENOENT || errno == ENOTDIR || errno == EACCES;
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return false;
  landlock_path_beneath_attr rule{};
  rule.allowed_access = S_ISDIR(status.st_mode) ? rights : rights & fileRights;
  rule.parent_fd = file.get();
  return syscall(SYS_landlock_add_rule, ruleset.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

// False, with errno, when the kernel refuses.
bool allowPorts(const Descriptor& ruleset, const SandboxProfile& profile) {
  if (!profile.allowsTCPConnect || !profile.tcpPorts) return true;
  return std::ranges::all_of(*profile.tcpPorts, [&](std::uint16_t port) {
    const PortRule rule{.port = port};
    return syscall(SYS_landlock_add_rule, ruleset.get(), LANDLOCK_RULE_NET_PORT, &rule, 0) == 0;
  });
}

// Negative, with errno, where there is none.
long askedABI() {
  return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

// Landlock came with Linux 5.13.
bool isNewEnough() {
  utsname system{};
  int major = 0;
  int minor = 0;
  return uname(&system) == 0 && std::sscanf(system.release, "%d.%d", &major, &minor) == 2 &&
         std::pair(major, minor) >= std::pair(5, 13);
}

// Also where the filter does not let it be asked.
bool isFiltered() { return prctl(PR_GET_SECCOMP, 0, 0, 0, 0) != 0; }

}  // namespace

std::string whyNoLandlock(int error, bool newEnough, bool filtered) {
  if (error == EOPNOTSUPP)
    return "the kernel's Landlock is switched off; put \"landlock\" among its security modules (boot "
           "parameter lsm=)";
  if (error == ENOSYS && !(newEnough && filtered))
    return "the kernel offers no Landlock; it takes Linux 5.13 or later with \"landlock\" built in "
           "(CONFIG_SECURITY_LANDLOCK)";
  return fmt::format(
      "Landlock is forbidden from outside: {}; let the container's or unit's system-call filter pass "
      "landlock_create_ruleset, landlock_add_rule and landlock_restrict_self",
      std::strerror(error));
}

std::optional<std::string> landlockMissing() {
  if (askedABI() >= 0) return std::nullopt;
  return whyNoLandlock(errno, isNewEnough(), isFiltered());
}

std::optional<std::string> enterLandlock(const SandboxProfile& profile) {
  const long abi = askedABI();
  if (abi < 0) return whyNoLandlock(errno, isNewEnough(), isFiltered());

  const RulesetAttributes attributes = attributesFor(profile, abi);
  const Descriptor ruleset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
  if (!ruleset) return systemError("cannot make Landlock rules");
  std::vector<std::string> socketFolders;
  if (!profile.socketFolder.empty()) socketFolders.push_back(profile.socketFolder);
  const std::pair<const std::vector<std::string>&, std::uint64_t> rules[] = {
      {profile.readOnlyPaths, readRights},
      {profile.readWritePaths, writeRights},
      {socketFolders, socketRights}};
  for (const auto& [paths, rights] : rules)
    for (const std::string& path : paths)
      if (!allow(ruleset, path, rights & attributes.handledFiles))
        return systemError(fmt::format("cannot make a Landlock rule for {}", path));
  if (attributes.handledNetwork != 0 && !allowPorts(ruleset, profile))
    return systemError("cannot make a Landlock rule for the deployment's ports");
  if (syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0)
    return systemError("cannot enter the Landlock rules");
  return std::nullopt;
}

}  // namespace corvid
