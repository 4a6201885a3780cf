#include <gtest/gtest.h>

#include "platform/Network.h"

namespace corvid {
namespace {

TEST(IPv4AddressTest, ReadsDottedDecimalText) {
  EXPECT_EQ(ipv4AddressFromText("127.0.0.1"), 0x7F000001u);
  EXPECT_EQ(ipv4AddressFromText("0.0.0.0"), 0u);
  EXPECT_EQ(ipv4AddressFromText("255.254.253.252"), 0xFFFEFDFCu);
}

TEST(IPv4AddressTest, WhatIsNoAddressIsTheBroadcastAddress) {
  for (const char* text : {"", "localhost", "example.org", "1.2.3.4.5", "256.0.0.1", "::1", "-1"})
    EXPECT_EQ(ipv4AddressFromText(text), 0xFFFFFFFFu) << text;
}

TEST(IPv4AddressTest, LooksAt15Characters) {
  EXPECT_EQ(ipv4AddressFromText("255.255.255.2509"), 0xFFFFFFFAu);
  EXPECT_EQ(ipv4AddressFromText(std::string(100'000, '1')), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace corvid
