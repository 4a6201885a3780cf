// Which addresses the HTTP client takes.
#pragma once

#include <string_view>

#include "base/Result.h"
#include "base/URL.h"

namespace corvid {

// The address taken apart, or why no request is ever sent to it, with a code of libcurl's: it must
// be a URL of a host, with the scheme https (or http, where that is allowed), and without a user.
// The parts are views of `address`. Nobody is asked.
Result<URL> addressOf(std::string_view address, bool allowInsecureHTTP);

}  // namespace corvid
