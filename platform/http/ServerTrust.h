// Whom the daemon talks to over HTTP, and how it makes sure.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <optional>
#include <string>

#include "base/Result.h"

namespace corvid {

// Sets what holds for each connection: TLS 1.2 or newer, verified against the file's certificates
// or, without one, the system's; http and https only; no proxy. The text is borrowed. Throws
// std::bad_alloc.
void setServerTrust(CURL* handle, const std::optional<std::string>& caFile);

// Makes a connection to the URL's host and port, over https with TLS, as an exchange would, and
// closes it; nothing is sent. The failure says why it could not be made. Any thread, which waits as
// long as `patience`.
std::optional<Failure> tryConnection(const std::string& url,
                                     const std::optional<std::string>& caFile,
                                     std::chrono::milliseconds patience);

}  // namespace corvid
