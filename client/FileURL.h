// File URLs, percent-encoded.
#pragma once

#include <string>
#include <string_view>

namespace corvid::library {

// `path` is absolute; its bytes need not be text.
inline std::string fileURL(std::string_view path) {
  constexpr std::string_view plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@/";
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string url = "file://";
  for (const char c : path) {
    if (plain.find(c) != std::string_view::npos) {
      url.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      url.append({'%', digits[byte >> 4], digits[byte & 15]});
    }
  }
  return url;
}

}  // namespace corvid::library
