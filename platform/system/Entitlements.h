// Who is at the other end of a socket, and what it may do.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/Result.h"
#include "base/Value.h"

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

// For log lines: "pid 123 uid 1000", and the unit where there is one.
std::string description(const PeerIdentity& peer);

// What the property lists in `folder` (*.plist) entitle the peer to. Each has a dictionary `match`
// with any of `user`, `group` (name or number), `unit` and `label`, which must all hold, and a
// dictionary `entitlements`. A group holds when it is any of the peer's. A missing or empty match,
// and one with a condition that is unknown or of a wrong type, matches nobody. Files are taken in
// name order, and of two entitlements of one name the later counts, so that "90-local.plist" can
// take back what "10-package.plist" gives.
//
// Everything is read at each call. A file that cannot be used is logged and passed over.
// Threads: any.
Dictionary entitlementsForPeer(const PeerIdentity& peer, const std::string& folder);

}  // namespace corvid
