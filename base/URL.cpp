#include "base/URL.h"

#include <arpa/inet.h>

#include <algorithm>

#include "base/Reading.h"
#include "base/Text.h"

namespace corvid {

namespace {

constexpr std::string_view queryMarks = "-._~!$&'()*+,;=:@/?";
constexpr std::string_view otherMarks = "#[]";

bool isOneOf(std::string_view characters, char c) {
  return characters.find(c) != std::string_view::npos;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool mayStandInQuery(char c) { return isASCIILetterOrDigit(c) || isOneOf(queryMarks, c); }

template <class Plain>
std::string percentEncoded(std::string_view text, Plain isPlain) {
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    if (isPlain(c))
      encoded.push_back(c);
    else
      encoded.append("%").append(upperCaseHexadecimal({&c, 1}));
  }
  return encoded;
}

bool hasOnlyURLCharacters(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (mayStandInQuery(text[at]) || isOneOf(otherMarks, text[at])) continue;
    if (text[at] != '%' || text.size() - at < 3 || !bytesFromHexadecimal(text.substr(at + 1, 2)))
      return false;
    at += 2;
  }
  return std::ranges::count(text, '#') <= 1;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isASCIILetterOrDigit(text.front()) && !isDigit(text.front()) &&
         std::ranges::all_of(text,
                             [](char c) { return isASCIILetterOrDigit(c) || isOneOf("+-.", c); });
}

// A name, or an IPv6 address in brackets, with or without a zone.
bool isHost(std::string_view text) {
  if (!text.starts_with('[')) return text.find_first_of("[]") == text.npos;
  if (!text.ends_with(']')) return false;
  const std::string address(text.substr(1, std::min(text.find("%25"), text.size() - 1) - 1));
  in6_addr binary;
  return inet_pton(AF_INET6, address.c_str(), &binary) == 1;
}

bool isPort(std::string_view text) { return text.empty() || numberFrom<std::uint16_t>(text); }

}  // namespace

std::optional<URL> parseURL(std::string_view text) {
  if (text.empty() || !hasOnlyURLCharacters(text)) return std::nullopt;
  URL url;
  const std::size_t colon = text.find_first_of(":/?#");
  if (colon != text.npos && text[colon] == ':') {
    url.scheme = text.substr(0, colon);
    if (!isScheme(url.scheme)) return std::nullopt;
    text.remove_prefix(colon + 1);
  }
  if (!text.starts_with("//")) return url;
  url.authority = text.substr(2, text.find_first_of("/?#", 2) - 2);
  const std::string_view server = url.authority.substr(url.authority.rfind('@') + 1);
  const std::size_t hostEnd = server.find(':', server.starts_with('[') ? server.find(']') : 0);
  url.host = server.substr(0, hostEnd);
  if (!isHost(url.host)) return std::nullopt;
  if (hostEnd != server.npos && !isPort(server.substr(hostEnd + 1))) return std::nullopt;
  return url;
}

std::string hostAndPort(std::string_view url) {
  const std::optional<URL> parsed = parseURL(url);
  if (!parsed) return {};
  const std::string_view authority = parsed->authority;
  const auto user = authority.rfind('@');
  std::string result(user == std::string_view::npos ? authority : authority.substr(user + 1));
  if (result.size() > parsed->host.size() + 1) return result;
  return std::string(parsed->host) + (equalsIgnoringCase(parsed->scheme, "http") ? ":80" : ":443");
}

std::string percentEncodedForQuery(std::string_view text) {
  return percentEncoded(text, mayStandInQuery);
}

std::string percentEncodedForPath(std::string_view text) {
  return percentEncoded(text, [](char c) { return c != '?' && mayStandInQuery(c); });
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && at + 2 < text.size()) {
      const auto byte = bytesFromHexadecimal(text.substr(at + 1, 2));
      if (byte && byte->front() != '\0') {
        decoded += *byte;
        at += 2;
        continue;
      }
    }
    decoded += text[at];
  }
  return decoded;
}

}  // namespace corvid
