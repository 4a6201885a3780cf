#include "tools/lab/HTTPServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "base/Thread.h"
#include "tools/lab/HTTPServerConnection.h"

namespace corvid::lab {
namespace {

constexpr int backlog = 512;
constexpr std::chrono::milliseconds waitForDescriptors{10};

// A listening socket on 127.0.0.1, and the port it got.
std::pair<Descriptor, std::uint16_t> listenOnLoopback(std::uint16_t port) {
  Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (!listener || ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(listener.get(), generic, size) != 0 || ::listen(listener.get(), backlog) != 0 ||
      ::getsockname(listener.get(), generic, &size) != 0)
    throw std::runtime_error(
        fmt::format("cannot listen on 127.0.0.1 port {}: {}", port, std::strerror(errno)));
  return {std::move(listener), ntohs(address.sin_port)};
}

}  // namespace

HTTPServer::HTTPServer(Handler handler, Options options)
    : _handler(std::move(handler)), _tls(options.tls ? serverTLS(*options.tls) : nullptr) {
  std::tie(_listener, _port) = listenOnLoopback(options.port);
  // The threads of its connections block signals as it does: a write to a peer that has left then
  // reports an error.
  _acceptor = startThread("lab-http", [this] { acceptConnections(); });
}

HTTPServer::~HTTPServer() { stop(); }

void HTTPServer::stop() {
  {
    MutexLock lock(_mutex);
    if (std::exchange(_stopping, true)) return;
  }
  ::shutdown(_listener.get(), SHUT_RDWR);
  _acceptor.join();
  std::list<HTTPServerConnection> connections;
  {
    MutexLock lock(_mutex);
    connections.swap(_connections);
  }
  for (auto& connection : connections) connection.breakOff();
}

std::string HTTPServer::url(std::string_view target) const {
  return fmt::format("{}://127.0.0.1:{}{}", _tls ? "https" : "http", _port, target);
}

std::size_t HTTPServer::connectionsOpen() const {
  MutexLock lock(_mutex);
  return static_cast<std::size_t>(std::ranges::count_if(
      _connections, [](const auto& connection) { return !connection.isOver(); }));
}

void HTTPServer::acceptConnections() {
  for (;;) {
    Descriptor socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) {
      add(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE) {
      std::this_thread::sleep_for(waitForDescriptors);
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return;  // stop() has shut the listener
    }
  }
}

void HTTPServer::add(Descriptor socket) {
  const int on = 1;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  MutexLock lock(_mutex);
  _connections.remove_if([](const auto& connection) { return connection.isOver(); });
  _connections.emplace_back(std::move(socket),
                            HTTPServerConnection::Surroundings{_handler, _tls.get(), _fault,
                                                               _accepted++, _requests, _answers});
}

}  // namespace corvid::lab
