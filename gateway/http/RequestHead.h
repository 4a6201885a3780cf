// What the gateway wants to know of a request's head.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/Rule.h"

namespace corvid::fleet {

struct RequestHead {
  std::string method;
  std::string target;
  std::optional<std::uint64_t> length;  // as the client says
  bool isChunked = false;
  bool keepsAlive = false;
  bool expectsContinue = false;
  // Content-Encoding, as it stands; of several the last, and `encodings` says how many.
  std::string encoding;
  int encodings = 0;
  // Who the client is by the header that proxies set; of several the last.
  std::string clientAddress;
  // Those whose name begins with "X-CVD-", under the names that docs/posts.md writes where it knows
  // them.
  std::vector<std::pair<std::string, std::string>> cvd;
  std::optional<Rule> cvdFault;  // of the first that cannot be used

  const std::string* cvdValue(std::string_view name) const;
  std::string_view path() const { return std::string_view(target).substr(0, target.find('?')); }
  // Without the question mark.
  std::string_view query() const;
};

}  // namespace corvid::fleet
