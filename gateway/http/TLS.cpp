#include "gateway/http/TLS.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace corvid::fleet {

namespace {

Failure failure(const std::string& file) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  return {file + " cannot be used: " + (reason ? reason : "unknown error")};
}

}  // namespace

Result<TLS> readTLS(const std::string& certificateFile, const std::string& keyFile) {
  TLS tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (!tls) return Failure{"no memory for TLS"};
  SSL_CTX_set_min_proto_version(tls.get(), TLS1_2_VERSION);
  // An idle connection keeps no buffers.
  SSL_CTX_set_mode(tls.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                  SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(tls.get(), SSL_SESS_CACHE_OFF);
  ERR_clear_error();
  if (SSL_CTX_use_certificate_chain_file(tls.get(), certificateFile.c_str()) != 1)
    return failure(certificateFile);
  if (SSL_CTX_use_PrivateKey_file(tls.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(tls.get()) != 1)
    return failure(keyFile);
  return tls;
}

}  // namespace corvid::fleet
