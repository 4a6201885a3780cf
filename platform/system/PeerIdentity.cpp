#include "platform/system/PeerIdentity.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Descriptor.h"
#include "base/Text.h"
#include "base/UnixAddress.h"
#include "platform/data/LocalFileSystem.h"

// Newer than the oldest headers this builds with.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace corvid {

namespace {

// The bytes of a socket option of any length; none where the system refuses.
std::string longSocketOption(int socket, int option) {
  std::string bytes(256, '\0');
  for (;;) {
    auto size = static_cast<socklen_t>(bytes.size());
    if (getsockopt(socket, SOL_SOCKET, option, bytes.data(), &size) == 0) {
      bytes.resize(size);
      return bytes;
    }
    // The kernel has said how much room it wants.
    if (errno != ERANGE || size <= bytes.size()) return {};
    bytes.resize(size);
  }
}

std::vector<gid_t> peerGroups(int socket) {
  const std::string bytes = longSocketOption(socket, SO_PEERGROUPS);
  std::vector<gid_t> groups(bytes.size() / sizeof(gid_t));
  if (!groups.empty()) std::memcpy(groups.data(), bytes.data(), groups.size() * sizeof(gid_t));
  return groups;
}

std::string peerLabel(int socket) {
  // Some modules count the zero at the end, some do not.
  return longSocketOption(socket, SO_PEERSEC).c_str();
}

// A descriptor of the process that connected. Kernels before 6.5 cannot tell; there it is the
// process that has its number now, provided that it is the same user's: processes of one user are
// not safe from each other anyway.
Descriptor processDescriptor(int socket, pid_t pid, uid_t uid) {
  if (const auto descriptor = socketOption<int>(socket, SO_PEERPIDFD))
    return Descriptor(*descriptor);
  if (errno != ENOPROTOOPT) return Descriptor();
  Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  struct stat owner {};
  if (stat(fmt::format("/proc/{}", pid).c_str(), &owner) != 0 || owner.st_uid != uid)
    return Descriptor();
  return process;
}

bool isAlive(const Descriptor& process) {
  pollfd ended{process.get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 0;
}

// Read while the process is known to live, so that its number cannot be another's.
std::string unitOfProcess(int socket, pid_t pid, uid_t uid) {
  const Descriptor process = processDescriptor(socket, pid, uid);
  if (!process) return {};
  const Result<std::string> groups = readRegularFile(fmt::format("/proc/{}/cgroup", pid));
  return groups && isAlive(process) ? unitOfControlGroups(groups.value()) : std::string();
}

// The first part of the path that is no slice. What stands below it is the unit's own business, in
// a user's service manager even the user's.
std::string unitOfGroup(std::string_view path) {
  for (std::string_view part : split(path, '/')) {
    if (part.empty() || part.ends_with(".slice")) continue;
    // Names that would collide with the kernel's own are escaped.
    if (part.starts_with('_')) part.remove_prefix(1);
    if (part.ends_with(".service") || part.ends_with(".scope")) return std::string(part);
    break;
  }
  return {};
}

// The path in the line "ID:CONTROLLERS:PATH" of that hierarchy; empty where there is none.
std::string_view groupPath(std::string_view lines, std::string_view hierarchy) {
  for (const std::string_view line : split(lines, '\n')) {
    const auto id = line.find(':');
    if (id == std::string_view::npos) continue;
    const auto controllers = line.find(':', id + 1);
    if (controllers == std::string_view::npos) continue;
    if (line.substr(id + 1, controllers - id - 1) == hierarchy) return line.substr(controllers + 1);
  }
  return {};
}

}  // namespace

std::string unitOfControlGroups(std::string_view lines) {
  // The unified hierarchy has no controllers here; beside older ones systemd may keep its own.
  std::string unit = unitOfGroup(groupPath(lines, ""));
  if (unit.empty()) unit = unitOfGroup(groupPath(lines, "name=systemd"));
  return unit;
}

Result<PeerIdentity> peerIdentity(int socket) {
  const auto credentials = socketOption<ucred>(socket, SO_PEERCRED);
  if (!credentials) return Failure{std::strerror(errno), errno};
  PeerIdentity peer{credentials->pid,   credentials->uid,  credentials->gid,
                    peerGroups(socket), peerLabel(socket), {}};
  peer.unit = unitOfProcess(socket, peer.pid, peer.uid);
  return peer;
}

}  // namespace corvid
