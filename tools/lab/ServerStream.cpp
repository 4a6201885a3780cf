#include "tools/lab/ServerStream.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

namespace corvid::lab {

std::shared_ptr<SSL_CTX> serverTLS(const TLSCertificate& certificate) {
  std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const auto& [chain, key] = certificate;
  if (!tls || SSL_CTX_use_certificate_chain_file(tls.get(), chain.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(tls.get(), key.c_str(), SSL_FILETYPE_PEM) != 1)
    throw std::runtime_error("cannot use the certificate " + chain);
  SSL_CTX_set_mode(tls.get(), SSL_MODE_AUTO_RETRY);
  return tls;
}

bool ServerStream::acceptTLS(SSL_CTX& tls) {
  _ssl.reset(SSL_new(&tls), SSL_free);
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
  if (::connect(_socket.get(), &nobody, sizeof nobody) != 0) breakOff();
}

}  // namespace corvid::lab
