// The certificate and key that a listener shows.
#pragma once

#include <memory>
#include <string>

#include "base/Result.h"

struct ssl_ctx_st;

namespace corvid::fleet {

// What connections are accepted with from a moment on; shared by those that have begun.
using TLS = std::shared_ptr<ssl_ctx_st>;

// From PEM files: a chain and its key. TLS 1.2 at least. The failure says which file cannot be
// used.
Result<TLS> readTLS(const std::string& certificateFile, const std::string& keyFile);

}  // namespace corvid::fleet
