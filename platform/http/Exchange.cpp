#include "platform/http/Exchange.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/http/Address.h"

namespace corvid {
namespace {

using namespace std::literals;

constexpr std::chrono::milliseconds longestTimeout = std::chrono::hours(24);

bool isHeaderName(std::string_view name) {
  return !name.empty() && std::ranges::all_of(name, [](unsigned char c) {
    return c > ' ' && c < 0x7f && c != ':' && c != ';';
  });
}

bool isHeaderValue(std::string_view value) { return value.find_first_of("\r\n\0"sv) == value.npos; }

bool isBlank(std::string_view value) { return value.find_first_not_of(" \t") == value.npos; }

void appendLine(std::string& lines, std::string_view name, std::string_view separator,
                std::string_view value) {
  lines.append(name).append(separator).append(value).push_back('\0');
}

bool contains(const HTTPHeaders& headers, std::string_view name) {
  return std::ranges::any_of(
      headers, [name](const auto& header) { return equalsIgnoringCase(header.first, name); });
}

std::string headerLinesFor(const HTTPHeaders& headers) {
  constexpr std::string_view addedByLibrary[] = {"Accept", "Content-Type", "Expect"};
  std::string lines;
  std::size_t size = 64;
  for (const auto& [name, value] : headers) size += name.size() + value.size() + 3;
  lines.reserve(size);
  for (const auto& [name, value] : headers)
    isBlank(value) ? appendLine(lines, name, ";", "") : appendLine(lines, name, ": ", value);
  for (const auto name : addedByLibrary)
    if (!contains(headers, name)) appendLine(lines, name, ":", "");
  return lines;
}

}  // namespace

HTTPFailure failureOf(int code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST: return HTTPFailure::resolve;
    case CURLE_COULDNT_CONNECT: return HTTPFailure::connect;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS: return HTTPFailure::tls;
    case CURLE_OPERATION_TIMEDOUT: return HTTPFailure::timeout;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE: return HTTPFailure::closed;
    case CURLE_FILESIZE_EXCEEDED: return HTTPFailure::tooLarge;
    // libcurl's own use of it never ends an exchange.
    case CURLE_AGAIN: return HTTPFailure::queueFull;
    default: return HTTPFailure::other;
  }
}

Result<Exchange> makeExchange(HTTPRequest request, bool allowInsecureHTTP, Exchange::Time now) {
  const Result<URL> url = addressOf(request.url, allowInsecureHTTP);
  if (!url) return url.failure();
  const std::string_view host = url.value().authority;
  const auto refuse = [&](std::string_view why) {
    return Failure{fmt::format("{}: {}", host, why), CURLE_BAD_FUNCTION_ARGUMENT};
  };
  if (request.method != "GET" && request.method != "POST")
    return refuse("the method is neither GET nor POST");
  for (const auto& [name, value] : request.headers)
    if (!isHeaderName(name) || !isHeaderValue(value))
      return refuse("a header cannot be sent as given");

  Exchange exchange;
  exchange.host = host;
  exchange.url = std::move(request.url);
  exchange.headerLines = headerLinesFor(request.headers);
  exchange.isPost = request.method == "POST";
  if (exchange.isPost) {
    exchange.body = std::move(request.body);
    exchange.rest = std::move(request.rest);
  }
  exchange.wantsBody = request.wantsBody;
  exchange.deadline = now + std::min(request.timeout, longestTimeout);
  exchange.patience = request.patience;
  exchange.deadlineCoversWait = request.timeoutCoversWait;
  exchange.mayLeave = std::move(request.mayLeave);
  exchange.user = request.user;
  return exchange;
}

}  // namespace corvid
