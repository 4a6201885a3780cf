#include "rpc/Admission.h"

#include "base/Log.h"
#include "protocol/Limits.h"

namespace corvid {

bool admitsConnection(const IPCConnection::Peer& peer, std::size_t all, std::size_t ofUser) {
  if (all < limits::connections && ofUser < limits::connectionsPerUser) return true;
  const bool forUser = all < limits::connections;
  logWarning("IPCListener: Process {}, user {} opened more than {} connections{}; closing it",
             peer.process, peer.user, forUser ? limits::connectionsPerUser : limits::connections,
             forUser ? " of one user" : "");
  return false;
}

}  // namespace corvid
