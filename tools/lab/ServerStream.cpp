#include "tools/lab/ServerStream.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

namespace corvid::lab {

ServerTLS::ServerTLS(const TLSCertificate& certificate)
    : _context(SSL_CTX_new(TLS_server_method())) {
  if (!_context ||
      SSL_CTX_use_certificate_chain_file(_context.get(), certificate.certificateFile.c_str()) !=
          1 ||
      SSL_CTX_use_PrivateKey_file(_context.get(), certificate.keyFile.c_str(), SSL_FILETYPE_PEM) !=
          1)
    throw std::runtime_error("cannot use the certificate " + certificate.certificateFile);
  SSL_CTX_set_mode(_context.get(), SSL_MODE_AUTO_RETRY);
}

bool ServerStream::acceptTLS(const ServerTLS& tls) {
  _ssl.reset(SSL_new(tls.context()));
  return _ssl && SSL_set_fd(_ssl.get(), _socket.get()) == 1 && SSL_accept(_ssl.get()) == 1;
}

std::size_t ServerStream::read(char* buffer, std::size_t size) {
  ERR_clear_error();
  const auto count =
      _ssl ? SSL_read(_ssl.get(), buffer, static_cast<int>(std::min<std::size_t>(size, INT_MAX)))
           : ::recv(_socket.get(), buffer, size, 0);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool ServerStream::write(std::string_view bytes) {
  ERR_clear_error();
  while (!bytes.empty()) {
    const auto count =
        _ssl ? SSL_write(_ssl.get(), bytes.data(),
                         static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX)))
             : ::send(_socket.get(), bytes.data(), bytes.size(), 0);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void ServerStream::finish() {
  if (_ssl) SSL_shutdown(_ssl.get());
  ::shutdown(_socket.get(), SHUT_WR);
}

void ServerStream::breakOff() { ::shutdown(_socket.get(), SHUT_RDWR); }

void ServerStream::reset() {
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  ::connect(_socket.get(), &nobody, sizeof nobody);
}

}  // namespace corvid::lab
