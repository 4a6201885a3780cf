#include "gateway/http/Transport.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

namespace corvid::fleet {

namespace {

int sizeOf(std::size_t bytes) {
  return static_cast<int>(std::min<std::size_t>(bytes, std::numeric_limits<int>::max()));
}

}  // namespace

Transport::Transport(boost::asio::ip::tcp::socket socket, const TLS& tls)
    : _socket(std::move(socket)) {
  boost::system::error_code ignored;
  _socket.native_non_blocking(true, ignored);
  _socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
  if (!tls) return;
  _ssl.reset(SSL_new(tls.get()));
  if (!_ssl || SSL_set_fd(_ssl.get(), _socket.native_handle()) != 1) throw std::bad_alloc();
  SSL_set_accept_state(_ssl.get());
}

Transport::Moved Transport::read(std::span<char> room) {
  if (_ssl) return need(SSL_read(_ssl.get(), room.data(), sizeOf(room.size())));
  const ssize_t count = recv(_socket.native_handle(), room.data(), room.size(), 0);
  if (count > 0) return {Need::none, static_cast<std::size_t>(count)};
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return {Need::readable};
  return {Need::closed};
}

bool Transport::hasBuffered() const { return _ssl && SSL_pending(_ssl.get()) > 0; }

Transport::Moved Transport::write(std::string_view bytes) {
  if (_ssl) return need(SSL_write(_ssl.get(), bytes.data(), sizeOf(bytes.size())));
  const ssize_t count = send(_socket.native_handle(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (count >= 0) return {Need::none, static_cast<std::size_t>(count)};
  if (errno == EAGAIN || errno == EINTR) return {Need::writable};
  return {Need::closed};
}

Transport::Moved Transport::need(int result) {
  if (result > 0) return {Need::none, static_cast<std::size_t>(result)};
  const int error = SSL_get_error(_ssl.get(), result);
  ERR_clear_error();
  if (error == SSL_ERROR_WANT_READ) return {Need::readable};
  if (error == SSL_ERROR_WANT_WRITE) return {Need::writable};
  return {Need::closed};
}

void Transport::endWriting() {
  if (_ssl) SSL_shutdown(_ssl.get());
  ERR_clear_error();
  boost::system::error_code ignored;
  _socket.shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

void Transport::close() {
  boost::system::error_code ignored;
  _socket.close(ignored);
}

void Transport::Free::operator()(ssl_st* ssl) const { SSL_free(ssl); }

}  // namespace corvid::fleet
