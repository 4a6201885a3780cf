#include "tests/gateway/engines/FreePorts.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

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
  // All are held until the last is found, so that none comes twice.
  std::vector<Descriptor> held;
  std::vector<std::uint16_t> ports;
  while (ports.size() < count) {
    held.push_back(openSocket());
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(held.back().get(), generic, length) != 0 ||
        getsockname(held.back().get(), generic, &length) != 0)
      throw std::system_error(errno, std::generic_category(), "no free port");
    ports.push_back(ntohs(address.sin_port));
  }
  return ports;
}

bool isOpen(std::uint16_t port) {
  const Descriptor socket = openSocket();
  const sockaddr_in address = loopback(port);
  return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace corvid::fleet
