// What connections' peers are entitled to, and when that may have changed.
#pragma once

#include <functional>

#include "base/Value.h"

namespace corvid {

// What one peer, as it was when it connected, is entitled to at the time of the call.
using PeerEntitlements = std::function<Dictionary()>;

// Takes note of the peer at the other end of a connected socket.
using EntitlementReader = std::function<PeerEntitlements(int socket)>;

// Tells that entitlements may have changed. `descriptor` is readable from a change until `take` is
// called; one below zero never is. `take` comes before peers' entitlements are asked for again, on
// the accept thread.
struct EntitlementChanges {
  int descriptor = -1;
  std::function<void()> take;
};

}  // namespace corvid
