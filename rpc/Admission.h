// How many connections there may be.
#pragma once

#include <cstddef>

#include "rpc/IPCConnection.h"

namespace corvid {

// Whether a peer's connection may be opened while `all` others are, `ofUser` of them by the peer's
// user. A refusal is logged with the limit that it would pass; that of all connections comes first.
bool admitsConnection(const IPCConnection::Peer& peer, std::size_t all, std::size_t ofUser);

}  // namespace corvid
