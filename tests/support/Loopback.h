// Sockets and ports of this machine's loopback.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Descriptor.h"

namespace corvid {

struct BoundSocket {
  Descriptor socket;
  std::uint16_t port;
};

sockaddr_in loopbackAddress(std::uint16_t port);

// Below, `type` is socket(2)'s, with flags; each socket is closed in programs that the process
// runs.

// At a free port; std::system_error where it cannot be.
BoundSocket bindOnLoopback(int type = SOCK_STREAM);
// The same, and clients may connect.
BoundSocket listenOnLoopback(int type = SOCK_STREAM);
// Nothing where nobody listens there.
Descriptor connectOnLoopback(std::uint16_t port, int type = SOCK_STREAM);

// Different TCP ports that nobody listens at just now: for programs that cannot be told to take
// any.
std::vector<std::uint16_t> freePorts(std::size_t count);

// Whether somebody takes connections there.
inline bool isOpen(std::uint16_t port) { return static_cast<bool>(connectOnLoopback(port)); }

}  // namespace corvid
