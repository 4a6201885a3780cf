#include "platform/network/UDPSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace corvid {

namespace {

sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port) {
  sockaddr_in whole{};
  whole.sin_family = AF_INET;
  whole.sin_port = htons(port);
  whole.sin_addr.s_addr = htonl(address);
  return whole;
}

}  // namespace

Result<std::unique_ptr<DatagramSocket>> UDPSocket::open() {
  Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP));
  if (!socket) {
    const int error = errno;
    return Failure{std::strerror(error), error};
  }
  return std::unique_ptr<DatagramSocket>(std::make_unique<UDPSocket>(std::move(socket)));
}

int UDPSocket::bindToAnyPort() {
  const sockaddr_in any = socketAddress(INADDR_ANY, 0);
  return ::bind(_socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0 ? 0
                                                                                         : errno;
}

int UDPSocket::connect(std::uint32_t address, std::uint16_t port) {
  const sockaddr_in peer = socketAddress(address, port);
  return ::connect(_socket.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0
             ? 0
             : errno;
}

bool UDPSocket::send(std::string_view datagram) {
  return ::send(_socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(datagram.size());
}

std::optional<std::size_t> UDPSocket::receive(std::span<char> buffer) {
  const ssize_t size = ::recv(_socket.get(), buffer.data(), buffer.size(), 0);
  return size < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(size));
}

}  // namespace corvid
