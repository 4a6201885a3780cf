// Who is at the other end of a socket.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"

namespace corvid {

// A process as the kernel vouches for it: as it was when it connected.
struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary
  std::string label;          // of the security module; empty where there is none
  // The systemd unit it runs in, such as "corvid-media.service" or "session-3.scope"; a process of
  // a user's own service manager belongs to "user@UID.service". Empty where it is in none, and
  // where the process has ended, for then its number may be another's.
  std::string unit;
};

// Reads the identity from a connected Unix stream socket. The failure's code is the system's.
Result<PeerIdentity> peerIdentity(int socket);

// The unit that the lines of a process's /proc/PID/cgroup name: the outermost service or scope, so
// that nobody can choose it who only has a part of the tree. Empty where they name none.
std::string unitOfControlGroups(std::string_view lines);

}  // namespace corvid
