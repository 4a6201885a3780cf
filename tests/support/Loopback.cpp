#include "tests/support/Loopback.h"

#include <cerrno>
#include <random>
#include <system_error>
#include <utility>

namespace corvid {

namespace {

Descriptor openSocket(int type) { return Descriptor(socket(AF_INET, type | SOCK_CLOEXEC, 0)); }

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

sockaddr_in loopbackAddress(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

BoundSocket bindOnLoopback(int type) {
  Descriptor socket = openSocket(type);
  sockaddr_in address = loopbackAddress(0);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket.get(), generic, size) != 0 || getsockname(socket.get(), generic, &size) != 0)
    fail("cannot bind a socket on loopback");
  return {std::move(socket), ntohs(address.sin_port)};
}

BoundSocket listenOnLoopback(int type) {
  BoundSocket bound = bindOnLoopback(type);
  constexpr int mostWaiting = 64;
  if (listen(bound.socket.get(), mostWaiting) != 0) fail("cannot listen on loopback");
  return bound;
}

Descriptor connectOnLoopback(std::uint16_t port, int type) {
  Descriptor socket = openSocket(type);
  const sockaddr_in address = loopbackAddress(port);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Descriptor();
  return socket;
}

std::vector<std::uint16_t> freePorts(std::size_t count) {
  // Below those that the system gives to clients: one of these would take the port of an engine
  // that is down for a while.
  std::uniform_int_distribution<int> drawn(16384, 32767);
  std::random_device random;
  // All are held until the last is found, so that none comes twice.
  std::vector<Descriptor> held;
  std::vector<std::uint16_t> ports;
  for (int tries = 0; ports.size() < count; ++tries) {
    const auto port = static_cast<std::uint16_t>(drawn(random));
    Descriptor socket = openSocket(SOCK_STREAM);
    const sockaddr_in address = loopbackAddress(port);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      held.push_back(std::move(socket));
      ports.push_back(port);
    } else if (tries > 1000) {
      fail("no free port on loopback");
    }
  }
  return ports;
}

}  // namespace corvid
