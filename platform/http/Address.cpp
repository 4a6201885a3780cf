#include "platform/http/Address.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include "base/Text.h"

namespace corvid {

namespace {

// These names are known to belong to nobody, so the resolver need not be asked.
bool isInvalidName(std::string_view host) {
  constexpr std::string_view ending = ".invalid";
  return host.size() > ending.size() &&
         equalsIgnoringCase(host.substr(host.size() - ending.size()), ending);
}

}  // namespace

Result<URL> addressOf(std::string_view address, bool allowInsecureHTTP) {
  const auto url = parseURL(address);
  if (!url || url->host.empty()) return Failure{"not a URL of a host", CURLE_URL_MALFORMAT};
  const auto refuse = [&](CURLcode code, std::string_view why) {
    return Failure{fmt::format("{}: {}", url->authority, why), code};
  };
  if (url->authority.find('@') != std::string_view::npos)
    return Failure{"a URL with a user name is not sent", CURLE_LOGIN_DENIED};
  if (equalsIgnoringCase(url->scheme, "http")) {
    if (!allowInsecureHTTP)
      return refuse(CURLE_UNSUPPORTED_PROTOCOL, "plain http is not allowed, only https");
  } else if (!equalsIgnoringCase(url->scheme, "https")) {
    return refuse(CURLE_UNSUPPORTED_PROTOCOL, "the URL is neither https nor http");
  }
  if (isInvalidName(url->host))
    return refuse(CURLE_COULDNT_RESOLVE_HOST, "the name belongs to no host");
  return *url;
}

}  // namespace corvid
