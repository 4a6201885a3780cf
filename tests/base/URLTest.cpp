#include <gtest/gtest.h>

#include <string>

#include "base/URL.h"

namespace corvid {
namespace {

TEST(URL, IsTakenApart) {
  struct {
    std::string_view text, scheme, authority, host;
  } const urls[] = {
      {"https://host/a", "https", "host", "host"},
      {"https://host:8443/a/b?c=d&e=%20f#g", "https", "host:8443", "host"},
      {"https://host", "https", "host", "host"},
      {"https://host?c:d@e", "https", "host", "host"},
      {"https://host#[", "https", "host", "host"},
      {"https://host:/", "https", "host:", "host"},
      {"https://host:65535/", "https", "host:65535", "host"},
      {"https://host:0000443/", "https", "host:0000443", "host"},
      {"https://user:a:b@host:1/c@d", "https", "user:a:b@host:1", "host"},
      {"https://[::1]/a", "https", "[::1]", "[::1]"},
      {"http://[2001:db8::1.2.3.4]:1/", "http", "[2001:db8::1.2.3.4]:1", "[2001:db8::1.2.3.4]"},
      {"https://user@[fe80::1%25eth0]:1", "https", "user@[fe80::1%25eth0]:1", "[fe80::1%25eth0]"},
      {"https://h%c3%bc/", "https", "h%c3%bc", "h%c3%bc"},
      {"https:///path", "https", "", ""},
      {"HTTP+x-1.0:any:thing", "HTTP+x-1.0", "", ""},
      {"host:port/upload", "host", "", ""},
      {"//host:1/path", "", "host:1", "host"},
      {"relative", "", "", ""},
      {"/a:b/c", "", "", ""},
      {"./a:b", "", "", ""},
      {"?q:r", "", "", ""},
      {"#", "", "", ""},
      {"https://host/-._~!$&'()*+,;=:@", "https", "host", "host"},
      {"https://host/?list[]=1", "https", "host", "host"},
  };
  for (const auto& [text, scheme, authority, host] : urls) {
    const auto url = parseURL(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->scheme, scheme) << text;
    EXPECT_EQ(url->authority, authority) << text;
    EXPECT_EQ(url->host, host) << text;
  }
}

TEST(URL, AnythingElseIsNone) {
  for (const char* text : {"", "https://host/a b", "https://host/\n", "https://host/\xc3\xbc",
                           "https://host/%", "https://host/%2", "https://host/%2g", "a#b#c",
                           "https://host/<x>", "https://host/\"", "https://host/\\", "a{b}", "a|b"})
    EXPECT_FALSE(parseURL(text)) << text;
  EXPECT_FALSE(parseURL(std::string_view("a\0b", 3)));
}

TEST(URL, ASchemeBeginsWithALetter) {
  for (const char* text : {":", "://host/", "1http://host/", "-:", "a_b:c", "%61:b"})
    EXPECT_FALSE(parseURL(text)) << text;
}

TEST(URL, APortIsANumberOfSixteenBits) {
  for (const char* text : {"https://host:port/upload", "https://host:65536/", "https://host:-1/",
                           "https://host:1:2/", "https://host:99999999999999999999/",
                           "https://[::1]:x/", "//host:port", "https://::1/", "https://:@:x"})
    EXPECT_FALSE(parseURL(text)) << text;
}

TEST(URL, BracketsHoldAnIPv6Address) {
  for (const char* text :
       {"https://[::1/upload", "https://[::1", "https://::1]/", "https://[]/", "https://[1.2.3.4]/",
        "https://[::1::2]/", "https://[host]/", "https://[::1]host/", "https://a[::1]/",
        "https://[[::1]]/", "https://[::1]]/", "https://ho[st]/", "https://[::1/]:1/",
        "https://[%25eth0]/", "//[::1"})
    EXPECT_FALSE(parseURL(text)) << text;
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
    EXPECT_TRUE(parseURL(encoded));
  }
  EXPECT_EQ(escaped, 256 - 81);
  EXPECT_EQ(percentEncodedForQuery("call log.txt"), "call%20log.txt");
  EXPECT_EQ(percentEncodedForQuery("a%b#c[\"\xc3\xbc\n]"), "a%25b%23c%5B%22%C3%BC%0A%5D");
}

TEST(URL, APathKeepsWhatAQueryKeepsButTheMarkThatBeginsOne) {
  EXPECT_EQ(percentEncodedForPath("/a b/c?d=e&f"), "/a%20b/c%3Fd=e&f");
}

}  // namespace
}  // namespace corvid
