#include <gtest/gtest.h>

#include <string>

#include "base/URL.h"

namespace corvid {
namespace {

TEST(URL, WhatAURLMayConsistOfIsOne) {
  for (const char* url : {"https://host/a", "https://host:8443/a/b?c=d&e=%20f#g", "http://[::1]:1/",
                          "relative", "?q", "https://host/-._~!$&'()*+,;=:@"})
    EXPECT_TRUE(isURL(url)) << url;
}

TEST(URL, AnythingElseIsNone) {
  for (const char* text : {"", "https://host/a b", "https://host/\n", "https://host/\xc3\xbc",
                           "https://host/%", "https://host/%2", "https://host/%2g", "a#b#c",
                           "https://host/<x>", "https://host/\"", "https://host/\\", "a{b}", "a|b"})
    EXPECT_FALSE(isURL(text)) << text;
  EXPECT_FALSE(isURL(std::string_view("a\0b", 3)));
}

TEST(URL, AQueryKeepsWhatMayStandInIt) {
  const std::string plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@/?";
  EXPECT_EQ(percentEncodedForQuery(plain), plain);
}

TEST(URL, EveryOtherByteIsEscaped) {
  int escaped = 0;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string encoded = percentEncodedForQuery(std::string(1, static_cast<char>(byte)));
    if (encoded.size() == 1) continue;
    ++escaped;
    ASSERT_EQ(encoded.size(), 3u);
    EXPECT_EQ(std::stoi(encoded.substr(1), nullptr, 16), byte);
    EXPECT_TRUE(isURL(encoded));
  }
  EXPECT_EQ(escaped, 256 - 81);
  EXPECT_EQ(percentEncodedForQuery("call log.txt"), "call%20log.txt");
  EXPECT_EQ(percentEncodedForQuery("a%b#c[\"\xc3\xbc\n]"), "a%25b%23c%5B%22%C3%BC%0A%5D");
}

}  // namespace
}  // namespace corvid
