#include "tests/gateway/engines/FreePorts.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <random>
#include <system_error>
#include <utility>

#include "base/Descriptor.h"

namespace corvid::fleet {

namespace {

Descriptor openSocket() { return Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

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
    Descriptor socket = openSocket();
    const sockaddr_in address = loopback(port);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      held.push_back(std::move(socket));
      ports.push_back(port);
    } else if (tries > 1000) {
      throw std::system_error(errno, std::generic_category(), "no free port");
    }
  }
  return ports;
}

bool isOpen(std::uint16_t port) {
  const Descriptor socket = openSocket();
  const sockaddr_in address = loopback(port);
  return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace corvid::fleet
