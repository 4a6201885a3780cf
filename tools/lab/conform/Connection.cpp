#include "tools/lab/conform/Connection.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace corvid::lab::conform {

namespace {

constexpr std::size_t pieceSize = std::size_t{64} << 10;

// Of the first address that takes it.
Descriptor connected(const addrinfo* addresses, std::chrono::milliseconds patience, int& error) {
  for (const addrinfo* each = addresses; each != nullptr; each = each->ai_next) {
    Descriptor socket(
        ::socket(each->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, each->ai_protocol));
    if (::connect(socket.get(), each->ai_addr, each->ai_addrlen) == 0) return socket;
    error = errno;
    if (error != EINPROGRESS) continue;
    pollfd waiting{socket.get(), POLLOUT, 0};
    error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (poll(&waiting, 1, static_cast<int>(patience.count())) > 0)
      getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0) return socket;
  }
  return Descriptor();
}

[[noreturn]] void failTLS(const char* what) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  throw std::runtime_error(fmt::format("{}: {}", what, reason ? reason : "the connection ended"));
}

}  // namespace

Connection::Connection(const Collector& collector) : _patience(collector.patience) {
  connectTo(collector);
  if (collector.isTLS) startTLS(collector);
}

void Connection::connectTo(const Collector& collector) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(collector.host.c_str(), collector.port.c_str(), &hints, &found))
    throw std::runtime_error(fmt::format("{}: {}", collector.authority, gai_strerror(error)));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  int error = 0;
  _socket = connected(found, _patience, error);
  if (!_socket)
    throw std::runtime_error(
        fmt::format("cannot connect to {}: {}", collector.authority, std::strerror(error)));
  const int on = 1;
  ::setsockopt(_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void Connection::startTLS(const Collector& collector) {
  ERR_clear_error();
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                  SSL_CTX_free);
  const bool trusts = collector.caFile.empty()
                          ? SSL_CTX_set_default_verify_paths(context.get()) == 1
                          : SSL_CTX_load_verify_file(context.get(), collector.caFile.c_str()) == 1;
  if (!trusts) failTLS(collector.caFile.c_str());
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_mode(context.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  _ssl.reset(SSL_new(context.get()), SSL_free);
  SSL* const ssl = _ssl.get();
  const std::string& host = collector.host;
  X509_VERIFY_PARAM* const verify = SSL_get0_param(ssl);
  const bool isAddress = X509_VERIFY_PARAM_set1_ip_asc(verify, host.c_str()) == 1;
  if (!isAddress) {
    ERR_clear_error();
    SSL_set1_host(ssl, host.c_str());
    SSL_set_tlsext_host_name(ssl, host.c_str());
  }
  SSL_set_fd(ssl, _socket.get());
  const Deadline deadline = deadlineIn(_patience);
  for (;;) {
    const int result = SSL_connect(ssl);
    if (result == 1) return;
    const int need = SSL_get_error(ssl, result);
    if (need != SSL_ERROR_WANT_READ && need != SSL_ERROR_WANT_WRITE)
      failTLS("the collector's TLS cannot be used");
    if (!wait(need == SSL_ERROR_WANT_WRITE, deadline))
      throw std::runtime_error("the collector's TLS does not answer");
  }
}

Connection::Need Connection::needAfter(int result) const {
  if (result > 0) return Need::none;
  const int error = SSL_get_error(_ssl.get(), result);
  ERR_clear_error();
  if (error == SSL_ERROR_WANT_READ) return Need::readable;
  return error == SSL_ERROR_WANT_WRITE ? Need::writable : Need::closed;
}

Connection::Need Connection::readSome() {
  std::array<char, pieceSize> piece;
  for (;;) {
    Need need = Need::none;
    ssize_t count = 0;
    if (_ssl) {
      count = SSL_read(_ssl.get(), piece.data(), static_cast<int>(piece.size()));
      need = needAfter(static_cast<int>(count));
    } else {
      count = ::recv(_socket.get(), piece.data(), piece.size(), 0);
      if (count <= 0) need = count < 0 && errno == EAGAIN ? Need::readable : Need::closed;
    }
    if (need == Need::closed) _isOver = true;
    if (need != Need::none) return need;
    _read.append(piece.data(), static_cast<std::size_t>(count));
  }
}

Connection::Need Connection::writeSome(std::string_view& bytes) {
  const std::string_view piece = bytes.substr(0, pieceSize);
  Need need = Need::none;
  ssize_t count = 0;
  if (_ssl) {
    count = SSL_write(_ssl.get(), piece.data(), static_cast<int>(piece.size()));
    need = needAfter(static_cast<int>(count));
  } else {
    count = ::send(_socket.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    if (count < 0) need = errno == EAGAIN ? Need::writable : Need::closed;
  }
  if (need == Need::none) bytes.remove_prefix(static_cast<std::size_t>(count));
  return need;
}

bool Connection::wait(bool forWriting, Deadline deadline) const {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return false;
  const short events = static_cast<short>(POLLIN | (forWriting ? POLLOUT : 0));
  pollfd waiting{_socket.get(), events, 0};
  return poll(&waiting, 1, static_cast<int>(left.count())) > 0;
}

void Connection::send(std::string_view bytes) {
  const Deadline deadline = deadlineIn(_patience);
  while (!bytes.empty() && !_isOver) {
    readSome();
    if (_read.find("\r\n\r\n") != _read.npos) return;
    const Need need = writeSome(bytes);
    // What it has said before it closed is still to be read.
    if (need == Need::closed) return;
    if (need != Need::none && !wait(need == Need::writable, deadline)) return;
  }
}

void Connection::endWriting() {
  if (_ssl) SSL_shutdown(_ssl.get());
  ERR_clear_error();
  ::shutdown(_socket.get(), SHUT_WR);
}

Reply Connection::reply(std::chrono::milliseconds limit) {
  const Deadline deadline = deadlineIn(limit);
  for (;;) {
    if (!_isOver) readSome();
    if (auto reply = takeReply(_read, _isOver)) return *reply;
    if (_isOver) return {.kind = Reply::Kind::end};
    if (!wait(false, deadline)) return {.kind = Reply::Kind::silence};
  }
}

}  // namespace corvid::lab::conform
