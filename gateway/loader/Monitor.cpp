#include "gateway/loader/Monitor.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace corvid::fleet {

namespace {

constexpr std::size_t mostRequestBytes = 8192;
constexpr timeval patience{2, 0};

Descriptor listenOn(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  std::string host = address.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  if (colon == address.npos ||
      getaddrinfo(host.c_str(), address.c_str() + colon + 1, &hints, &found) != 0)
    throw std::runtime_error(fmt::format("\"{}\" is no ADDRESS:PORT", address));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  Descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(socket.get(), found->ai_addr, found->ai_addrlen) != 0 || listen(socket.get(), 16) != 0)
    throw std::runtime_error(fmt::format("{}: {}", address, std::strerror(errno)));
  return socket;
}

// Its first line; empty where it does not come.
std::string requestLine(int client) {
  std::string request;
  std::array<char, 1024> piece{};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(patience.tv_sec);
  while (request.find("\r\n\r\n") == request.npos && request.size() < mostRequestBytes) {
    const ssize_t length = recv(client, piece.data(), piece.size(), 0);
    if (length <= 0 || std::chrono::steady_clock::now() > deadline) return {};
    request.append(piece.data(), static_cast<std::size_t>(length));
  }
  return request.substr(0, request.find("\r\n"));
}

std::string response(std::string_view status, std::string_view type, std::string_view body) {
  return fmt::format(
      "HTTP/1.1 {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nConnection: close\r\n\r\n{}",
      status, type, body.size(), body);
}

}  // namespace

Monitor::Monitor(const std::string& address, Answers answers)
    : _answers(std::move(answers)),
      _socket(listenOn(address)),
      _thread([this](const std::stop_token& stop) { run(stop); }) {}

Monitor::~Monitor() {
  _thread.request_stop();
  _wakeup.wake();
}

std::uint16_t Monitor::port() const {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  getsockname(_socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin6_port);  // at the same place for IPv4
}

void Monitor::run(const std::stop_token& stop) const {
  while (!stop.stop_requested()) {
    std::array<pollfd, 2> waiting{{{_socket.get(), POLLIN, 0}, {_wakeup.descriptor(), POLLIN, 0}}};
    poll(waiting.data(), waiting.size(), -1);
    if (stop.stop_requested() || (waiting[0].revents & POLLIN) == 0) continue;
    const Descriptor client(accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) continue;
    setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    answer(client.get());
  }
}

void Monitor::answer(int client) const {
  const std::string line = requestLine(client);
  if (line.empty()) return;
  std::string text;
  if (line.starts_with("GET /metrics "))
    text = response("200 OK", "application/openmetrics-text; version=1.0.0; charset=utf-8",
                    _answers.metrics());
  else if (line.starts_with("GET /healthz "))
    text = _answers.isReady() ? response("200 OK", "text/plain", "ready\n")
                              : response("503 Service Unavailable", "text/plain", "not ready\n");
  else
    text = response("404 Not Found", "text/plain", "there are /metrics and /healthz\n");
  [[maybe_unused]] const ssize_t sent = send(client, text.data(), text.size(), MSG_NOSIGNAL);
}

}  // namespace corvid::fleet
