#include "base/URL.h"

#include <arpa/inet.h>

#include <algorithm>

namespace corvid {

namespace {

constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::string_view queryMarks = "0123456789-._~!$&'()*+,;=:@/?";
constexpr std::string_view otherMarks = "#[]";
constexpr std::string_view hexadecimalDigits = "0123456789ABCDEF";

bool isOneOf(std::string_view characters, char c) {
  return characters.find(c) != std::string_view::npos;
}

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

bool mayStandInQuery(char c) { return isOneOf(letters, c) || isOneOf(queryMarks, c); }

bool hasOnlyURLCharacters(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (mayStandInQuery(text[at]) || isOneOf(otherMarks, text[at])) continue;
    if (text[at] != '%' || text.size() - at < 3 || hexValue(text[at + 1]) < 0 ||
        hexValue(text[at + 2]) < 0)
      return false;
    at += 2;
  }
  return std::ranges::count(text, '#') <= 1;
}

bool isScheme(std::string_view text) {
  return !text.empty() && isOneOf(letters, text.front()) && std::ranges::all_of(text, [](char c) {
    return isOneOf(letters, c) || isOneOf("0123456789+-.", c);
  });
}

// A name, or an IPv6 address in brackets, with or without a zone.
bool isHost(std::string_view text) {
  if (!text.starts_with('[')) return text.find_first_of("[]") == text.npos;
  if (!text.ends_with(']')) return false;
  const std::string address(text.substr(1, std::min(text.find("%25"), text.size() - 1) - 1));
  in6_addr binary;
  return inet_pton(AF_INET6, address.c_str(), &binary) == 1;
}

bool isPort(std::string_view text) {
  unsigned port = 0;
  for (const char digit : text) {
    if (digit < '0' || digit > '9') return false;
    port = port * 10 + static_cast<unsigned>(digit - '0');
    if (port > 65535) return false;
  }
  return true;
}

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

std::string percentEncodedForQuery(std::string_view text) {
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    if (mayStandInQuery(c)) {
      encoded.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded.append({'%', hexadecimalDigits[byte >> 4], hexadecimalDigits[byte & 15]});
    }
  }
  return encoded;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && at + 2 < text.size()) {
      const int high = hexValue(text[at + 1]);
      const int low = hexValue(text[at + 2]);
      if (high >= 0 && low >= 0 && high + low > 0) {
        decoded += static_cast<char>(high * 16 + low);
        at += 2;
        continue;
      }
    }
    decoded += text[at];
  }
  return decoded;
}

}  // namespace corvid
