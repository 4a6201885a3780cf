#include "base/URL.h"

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

}  // namespace

bool isURL(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (mayStandInQuery(text[at]) || isOneOf(otherMarks, text[at])) continue;
    if (text[at] != '%' || text.size() - at < 3 || hexValue(text[at + 1]) < 0 ||
        hexValue(text[at + 2]) < 0)
      return false;
    at += 2;
  }
  return !text.empty() && std::ranges::count(text, '#') <= 1;
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
