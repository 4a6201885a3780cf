#include "tests/tools/lab/conform/CannedServer.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "tests/support/Loopback.h"

namespace corvid::lab::conform {

namespace {

constexpr std::size_t mostBytes = std::size_t{16} << 20;

// More bytes behind those that are there; false where none come.
bool readMore(int socket, std::string& bytes) {
  std::array<char, 65536> piece;
  const ssize_t count = recv(socket, piece.data(), piece.size(), 0);
  if (count <= 0 || bytes.size() > mostBytes) return false;
  bytes.append(piece.data(), static_cast<std::size_t>(count));
  return true;
}

// 0 where none can be read, or where nobody has so much.
std::size_t lengthIn(std::string_view head) {
  constexpr std::string_view name = "Content-Length: ";
  const std::size_t at = head.find(name);
  if (at == head.npos) return 0;
  const std::string_view rest = head.substr(at + name.size());
  const auto length = numberFrom<std::size_t>(rest.substr(0, rest.find("\r\n")));
  return length && *length < mostBytes ? *length : 0;
}

// The next request; nothing where the peer has ended before its head.
std::optional<CannedServer::Request> next(int socket, std::string& bytes) {
  std::size_t end;
  while ((end = bytes.find("\r\n\r\n")) == bytes.npos)
    if (!readMore(socket, bytes)) return std::nullopt;
  CannedServer::Request request{.head = bytes.substr(0, end), .body = {}, .isCut = false};
  bytes.erase(0, end + 4);
  const std::size_t length = lengthIn(request.head);
  while (bytes.size() < length && !request.isCut) request.isCut = !readMore(socket, bytes);
  request.body = bytes.substr(0, length);
  bytes.erase(0, length);
  return request;
}

}  // namespace

CannedServer::CannedServer(Handler handler, Service service)
    : _handler(std::move(handler)), _service(service) {
  BoundSocket bound = listenOnLoopback();
  _listener = std::move(bound.socket);
  _port = bound.port;
  _acceptor = std::thread([this] { accept(); });
}

CannedServer::~CannedServer() {
  shutdown(_listener.get(), SHUT_RDWR);
  // Who serves one connection after the other waits for its peer, which has gone with its test.
  _acceptor.join();
  for (const Descriptor& socket : _sockets) shutdown(socket.get(), SHUT_RDWR);
  for (std::thread& connection : _connections) connection.join();
}

std::string CannedServer::url() const { return fmt::format("http://127.0.0.1:{}", _port); }

void CannedServer::accept() {
  for (;;) {
    Descriptor socket(accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    if (_service == Service::oneByOne) {
      serve(socket.get());
      continue;
    }
    const int number = _sockets.emplace_back(std::move(socket)).get();
    _connections.emplace_back([this, number] { serve(number); });
  }
}

void CannedServer::serve(int socket) const {
  std::string bytes;
  while (const auto request = next(socket, bytes)) {
    if (_service == Service::silently) continue;
    const Answer answer = _handler(*request);
    send(socket, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL);
    if (answer.hangsUp) break;
  }
  // What was sent is read before the end comes.
  shutdown(socket, SHUT_WR);
  while (readMore(socket, bytes)) bytes.clear();
}

CannedServer::Answer canned(int status, std::string_view body) {
  return {fmt::format("HTTP/1.1 {} \r\nContent-Length: {}\r\n\r\n{}", status, body.size(), body)};
}

}  // namespace corvid::lab::conform
