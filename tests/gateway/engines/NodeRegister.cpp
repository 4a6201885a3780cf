#include "tests/gateway/engines/NodeRegister.h"

#include <sys/socket.h>

#include <array>
#include <stdexcept>

#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

void append(std::string& bytes, std::size_t number) {
  bytes += static_cast<char>(number >> 8);
  bytes += static_cast<char>(number & 0xff);
}

// EPMD's ALIVE2_REQ: a node that is seen, over TCP, of protocol version 6 or 5.
std::string registration(const std::string& name, std::uint16_t port) {
  std::string body("x");
  append(body, port);
  body += std::string("M\0", 2);
  append(body, 6);
  append(body, 5);
  append(body, name.size());
  body += name;
  append(body, 0);
  std::string request;
  append(request, body.size());
  return request + body;
}

}  // namespace

NodeRegister::NodeRegister(std::uint16_t port)
    : _port(port),
      _process({.command = {"epmd", "-port", std::to_string(port), "-address", "127.0.0.1"}}) {
  if (!waitUntil([port] { return isOpen(port); })) throw std::runtime_error("epmd does not start");
}

void NodeRegister::announce(const std::string& name, std::uint16_t port) {
  Descriptor connection = connectOnLoopback(_port);
  const std::string request = registration(name, port);
  // ALIVE2_RESP or its longer form, and the result: 0.
  std::array<char, 2> answer{};
  const bool isTaken = connection &&
                       send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) ==
                           static_cast<ssize_t>(request.size()) &&
                       recv(connection.get(), answer.data(), answer.size(), MSG_WAITALL) == 2 &&
                       answer[1] == 0;
  if (!isTaken) throw std::runtime_error("epmd does not take " + name);
  _announced[name] = std::move(connection);
}

}  // namespace corvid::fleet
