// The bytes of one accepted connection, in the clear or through TLS.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "base/Descriptor.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::lab {

// The server's side of TLS: its certificate. Throws std::runtime_error where that cannot be used.
std::shared_ptr<SSL_CTX> serverTLS(const TLSCertificate& certificate);

// Blocking. One thread reads and writes; any thread may breakOff, which ends whatever blocks. The
// thread that writes must block SIGPIPE.
class ServerStream {
 public:
  explicit ServerStream(Descriptor socket) : _socket(std::move(socket)) {}

  // False where the peer's handshake fails.
  bool acceptTLS(SSL_CTX& tls);
  // Bytes read; 0 at the end and after a failure.
  std::size_t read(char* buffer, std::size_t size);
  // False once the peer is gone.
  bool write(std::string_view bytes);
  // Says goodbye as TLS wants it. Nothing is written after it.
  void finish();
  // The connection is over for both sides, at once and without a word.
  void breakOff();
  // As breakOff, and the peer is told of an error.
  void reset();

 private:
  const Descriptor _socket;
  std::shared_ptr<SSL> _ssl;  // none: in the clear
};

}  // namespace corvid::lab
