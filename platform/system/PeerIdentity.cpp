#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Descriptor.h"
#include "platform/system/ControlGroup.h"
#include "platform/system/Entitlements.h"
#include "platform/system/SettingsFile.h"

// Newer than the oldest headers this builds with.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace corvid {

namespace {

// The bytes of a socket option of any length; the failure's code is the system's.
Result<std::string> socketOption(int socket, int option) {
  std::string bytes(256, '\0');
  for (;;) {
    auto size = static_cast<socklen_t>(bytes.size());
    if (getsockopt(socket, SOL_SOCKET, option, bytes.data(), &size) == 0) {
      bytes.resize(size);
      return bytes;
    }
    // The kernel has said how much room it wants.
    if (errno != ERANGE || size <= bytes.size()) return Failure{std::strerror(errno), errno};
    bytes.resize(size);
  }
}

std::vector<gid_t> peerGroups(int socket) {
  const Result<std::string> bytes = socketOption(socket, SO_PEERGROUPS);
  if (!bytes || bytes.value().empty()) return {};
  std::vector<gid_t> groups(bytes.value().size() / sizeof(gid_t));
  std::memcpy(groups.data(), bytes.value().data(), groups.size() * sizeof(gid_t));
  return groups;
}

std::string peerLabel(int socket) {
  const Result<std::string> label = socketOption(socket, SO_PEERSEC);
  // Some modules count the zero at the end, some do not.
  return label ? std::string(label.value().c_str()) : std::string();
}

// A descriptor of the process that connected. Kernels before 6.5 cannot tell; there it is the
// process that has its number now, provided that it is the same user's: processes of one user are
// not safe from each other anyway.
Descriptor processDescriptor(int socket, pid_t pid, uid_t uid) {
  int descriptor = -1;
  socklen_t size = sizeof descriptor;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &size) == 0)
    return Descriptor(descriptor);
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
  const Result<std::string> groups = readSettingsFile(fmt::format("/proc/{}/cgroup", pid));
  return groups && isAlive(process) ? unitOfControlGroups(groups.value()) : std::string();
}

}  // namespace

Result<PeerIdentity> peerIdentity(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
    return Failure{std::strerror(errno), errno};
  PeerIdentity peer{credentials.pid,    credentials.uid,   credentials.gid,
                    peerGroups(socket), peerLabel(socket), {}};
  peer.unit = unitOfProcess(socket, peer.pid, peer.uid);
  return peer;
}

std::string description(const PeerIdentity& peer) {
  std::string text = fmt::format("pid {} uid {}", peer.pid, peer.uid);
  if (!peer.unit.empty()) text += " unit " + peer.unit;
  return text;
}

}  // namespace corvid
