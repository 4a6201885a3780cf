#include "tests/gateway/Caller.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "base/Reading.h"
#include "base/Text.h"
#include "tests/support/Loopback.h"

namespace corvid::fleet {

Caller::Caller(std::uint16_t port) : _socket(connectOnLoopback(port)) {
  if (!_socket) throw std::runtime_error("cannot connect");
}

bool Caller::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void Caller::endWriting() { shutdown(_socket.get(), SHUT_WR); }

bool Caller::fill(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  pollfd ready{_socket.get(), POLLIN, 0};
  if (left.count() < 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
  std::string piece(65536, '\0');
  const ssize_t count = recv(_socket.get(), piece.data(), piece.size(), 0);
  if (count <= 0) return false;
  _read.append(piece, 0, static_cast<std::size_t>(count));
  return true;
}

std::optional<Got> Caller::answer(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::size_t end;
  while ((end = _read.find("\r\n\r\n")) == _read.npos)
    if (!fill(deadline)) return std::nullopt;
  Got got;
  const std::string head = _read.substr(0, end);
  _read.erase(0, end + 4);
  for (const std::string_view line : split(head, '\n')) {
    const std::size_t colon = line.find(':');
    if (got.status == 0)
      got.status = numberFrom<int>(line.substr(9, 3)).value_or(-1);
    else if (colon != line.npos)
      got.headers[lowerCased(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
  }
  const auto length = numberFrom<std::size_t>(got.headers["content-length"]).value_or(0);
  while (_read.size() < length)
    if (!fill(deadline)) return std::nullopt;
  got.body = _read.substr(0, length);
  _read.erase(0, length);
  return got;
}

bool Caller::isClosed(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (fill(deadline)) _read.clear();
  return std::chrono::steady_clock::now() < deadline;
}

std::string request(std::string_view path, std::string_view body,
                    const std::vector<std::string>& headers) {
  std::string text =
      fmt::format("POST {} HTTP/1.1\r\nHost: gateway\r\nContent-Length: {}\r\n", path, body.size());
  for (const std::string& header : headers) text += header + "\r\n";
  return text.append("\r\n").append(body);
}

std::optional<Got> post(std::uint16_t port, std::string_view path, std::string_view body,
                        const std::vector<std::string>& headers) {
  Caller caller(port);
  caller.send(request(path, body, headers));
  return caller.answer();
}

std::optional<Got> get(std::uint16_t port, std::string_view path) {
  Caller caller(port);
  caller.send(fmt::format("GET {} HTTP/1.1\r\nHost: gateway\r\n\r\n", path));
  return caller.answer();
}

std::string logData() {
  std::string list(
      "bplist00\xA1\x01\x51"
      "a\x08\x0A",
      14);
  list.append(6, '\0').append("\x01\x01").append(7, '\0').append("\x02").append(15, '\0');
  return list.append("\x0C");
}

}  // namespace corvid::fleet
