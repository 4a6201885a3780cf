#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "backends/dashboard/TagReportingPacket.h"
#include "base/Text.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using namespace std::string_literals;

std::string hexOf(const TagReportingPacket& packet, std::size_t offset, std::size_t size) {
  return hexadecimal(packet.datagram().substr(offset, size));
}

std::string payloadOf(const Dictionary& payload) {
  return std::string(TagReportingPacket({}, &payload).payload());
}
std::string payloadOfValue(const Value& value) { return payloadOf({{"k", value}}); }

TEST(TagReportingPacketTest, WritesEachFieldAtItsPlace) {
  TagReportingPacketHeader header;
  header.selfVersionMajor = 8;
  header.compType = 17;
  header.msec4 = 249;
  header.timestamp = 0x01020304;
  header.sessionID = 0x00FF10A5;
  header.clientVersion = 0x0102;
  header.method = 0x0304;
  header.respCode = 0x0506;
  header.setUdid("0123456789abcdef0123456789abcdef01234567");
  header.eventID = 0x0708;
  header.flags = packetFlagReliable | packetFlagExplicitAddress;
  const Dictionary payload{{"a", "b"}};
  const TagReportingPacket packet(header, &payload);

  ASSERT_EQ(packet.datagram().size(), 68u);
  EXPECT_EQ(hexOf(packet, 0, 4), "081101f9") << "version, component type, kind 1, time in 4 ms";
  EXPECT_EQ(hexOf(packet, 4, 4), "01020304") << "seconds";
  EXPECT_EQ(hexOf(packet, 8, 4), "ff00ef5a") << "complement of the session ID";
  EXPECT_EQ(hexOf(packet, 12, 2), "fefd") << "complement of the client version";
  EXPECT_EQ(hexOf(packet, 14, 2), "ffbb") << "complement of the length";
  EXPECT_EQ(hexOf(packet, 16, 4), "03040506") << "method, response code";
  EXPECT_EQ(packet.datagram().substr(20, 40), "0123456789abcdef0123456789abcdef01234567");
  EXPECT_EQ(hexOf(packet, 60, 2), "0708") << "event number";
  EXPECT_EQ(hexOf(packet, 62, 2), "0003") << "reserved, flags";
  EXPECT_EQ(packet.datagram().substr(64), " a=b");
}

TEST(TagReportingPacketTest, IsTheDocumentedExample) {
  const std::string page = contentOf(CORVID_DOCS_FOLDER "/dashboard-packet.md");
  const std::string fence = "```hex\n";
  const std::size_t begin = page.find(fence);
  ASSERT_NE(begin, std::string::npos);
  std::string documented;
  for (std::size_t at = begin + fence.size(); page[at] != '`'; ++at)
    if (!std::isspace(static_cast<unsigned char>(page[at]))) documented += page[at];

  TagReportingPacketHeader header;
  header.selfVersionMajor = 8;
  header.compType = 5;
  header.msec4 = 123;
  header.timestamp = 1'700'000'000;
  header.sessionID = 42;
  header.clientVersion = 3;
  header.method = 7;
  header.respCode = 2;
  header.setUdid("0123456789abcdef0123456789abcdef01234567");
  header.eventID = 258;
  header.flags = packetFlagReliable;
  const Dictionary payload{{"formula", "a=b\\c"}, {"count", 4}, {"note", "\n"}};
  EXPECT_EQ(hexadecimal(TagReportingPacket(header, &payload).datagram()), documented);
}

TEST(TagReportingPacketTest, AnEmptyOrAbsentPayloadIsTheHeaderAlone) {
  const Dictionary empty;
  for (const Dictionary* payload : {&empty, static_cast<const Dictionary*>(nullptr)}) {
    const TagReportingPacket packet({}, payload);
    EXPECT_EQ(packet.datagram().size(), 64u);
    EXPECT_EQ(hexOf(packet, 14, 2), "ffbf");
  }
}

TEST(TagReportingPacketTest, ZerosAreSentAsTheirComplements) {
  const TagReportingPacket packet({}, nullptr);
  EXPECT_EQ(hexOf(packet, 8, 4), "ffffffff");
  EXPECT_EQ(hexOf(packet, 12, 2), "ffff");
}

TEST(TagReportingPacketTest, AShortIdentifierIsFilledUpWithZeroBytes) {
  TagReportingPacketHeader header;
  header.setUdid("0123456789abcdef0123456789abcdef01234567 and more");
  header.setUdid("short");
  EXPECT_EQ(header.udidText(), "short");
  const TagReportingPacket packet(header, nullptr);
  EXPECT_EQ(packet.datagram().substr(20, 40), "short" + std::string(35, '\0'));
  header.setUdid("");
  EXPECT_EQ(TagReportingPacket(header, nullptr).datagram().substr(20, 40), std::string(40, '\0'));
}

TEST(TagReportingPacketTest, OnlyFortyBytesOfTheIdentifierAreSent) {
  TagReportingPacketHeader header;
  header.setUdid("0123456789abcdef0123456789abcdef0123456789");
  EXPECT_EQ(header.udidText(), "0123456789abcdef0123456789abcdef01234567");
  EXPECT_EQ(hexOf(TagReportingPacket(header, nullptr), 60, 4), "00000000");
}

TEST(TagReportingPacketTest, ShorterValuesComeFirstWhateverTheKeys) {
  EXPECT_EQ(payloadOf({{"a", "0123456789"}, {"z", "1"}, {"m", "four"}}),
            " z=1 m=four a=0123456789");
}

TEST(TagReportingPacketTest, LengthsAreThoseBeforeEscapingAndInCharacters) {
  EXPECT_EQ(payloadOf({{"a", "1234"}, {"b", "==="}}), " b=\\=\\=\\= a=1234");
  EXPECT_EQ(payloadOf({{"a", "1234"}, {"b", "äöü"}}), " b=äöü a=1234") << "three characters";
  EXPECT_EQ(payloadOf({{"a", "x"}, {"b", "\n\n"}}), " a=x b=empty");
}

TEST(TagReportingPacketTest, ValuesOfOneLengthKeepTheirOrder) {
  EXPECT_EQ(payloadOf({{"b", "1"}, {"a", "2"}, {"c", 3}}), " b=1 a=2 c=3");
}

TEST(TagReportingPacketTest, KeysAreWrittenAsTheyAre) {
  EXPECT_EQ(payloadOf({{"a=b\\c\nd", "v"}}), " a=b\\c\nd=v");
  EXPECT_EQ(payloadOf({{"", "v"}}), " =v");
}

TEST(TagReportingPacketTest, EscapesValues) {
  EXPECT_EQ(payloadOfValue("a=b\\c"), " k=a\\=b\\\\c");
  EXPECT_EQ(payloadOfValue("\n\n"), " k=empty");
  EXPECT_EQ(payloadOfValue(""), " k=empty");
}

TEST(TagReportingPacketTest, ATextEndsAtItsFirstZeroByte) {
  EXPECT_EQ(payloadOf({{"k\0x"s, "ab\0cd"s}, {"next", "12345678"}}), " k=ab next=12345678");
  EXPECT_EQ(payloadOfValue("\0cd"s), " k=empty");
}

TEST(TagReportingPacketTest, WhatDoesNotFitIsCutAtTheByte) {
  const std::string full(1023 - 3, 'x');  // with " k="
  EXPECT_EQ(payloadOfValue(full).size(), 1023u);
  EXPECT_EQ(payloadOfValue(full + "y"), " k=" + full);
  const Dictionary longer{{"k", full + "y"}};
  const TagReportingPacket packet({}, &longer);
  EXPECT_EQ(packet.datagram().size(), 1087u);
  EXPECT_EQ(hexOf(packet, 14, 2), "fbc0");

  EXPECT_EQ(payloadOf({{"k", full}, {"later", full}}), " k=" + full)
      << "a full field takes no more";
  const std::string oneShort(1022 - 3, 'x');
  EXPECT_EQ(payloadOf({{"k", oneShort}, {"later", oneShort}}), " k=" + oneShort + " ");
  EXPECT_EQ(payloadOfValue(oneShort + "ä"), " k=" + oneShort + "\xc3") << "inside a character";
}

TEST(TagReportingPacketTest, DescribesEachTypeOfValue) {
  EXPECT_EQ(descriptionForObject("text"), "text");
  EXPECT_EQ(descriptionForObject("Grüße 🦩"), "Grüße 🦩");
  EXPECT_EQ(descriptionForObject(""), "");
  EXPECT_EQ(descriptionForObject(-17), "-17");
  EXPECT_EQ(descriptionForObject(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(descriptionForObject(0.1), "0.1");
  EXPECT_EQ(descriptionForObject(2.0), "2");
  EXPECT_EQ(descriptionForObject(1e300), "1e+300");
  EXPECT_EQ(descriptionForObject(true), "1");
  EXPECT_EQ(descriptionForObject(false), "0");
  for (const Value& other : {Value(), Value(Date{1}), Value(Data{"x"}), Value(Array{"x"}),
                             Value(Dictionary{{"x", "y"}})})
    EXPECT_EQ(descriptionForObject(other), "null");
}

TEST(TagReportingPacketTest, SanitizesInOrder) {
  EXPECT_EQ(sanitize("a=b\\c"), "a\\=b\\\\c");
  EXPECT_EQ(sanitize("\\="), "\\\\\\=") << "the backslash before \"=\" is not doubled";
  EXPECT_EQ(sanitize("a\nb\r\tc d"), "ab\r\tc d");
  EXPECT_EQ(sanitize("\n\n\n"), "empty");
  EXPECT_EQ(sanitize(""), "empty");
  EXPECT_EQ(sanitize("Grüße"), "Grüße");
  EXPECT_EQ(sanitize("a\0b"s), "a\0b"s);
}

TEST(TagReportingPacketTest, AnAcknowledgementIsTheEventNumberAtItsPlace) {
  TagReportingPacketHeader header;
  header.eventID = 0x8001;
  const Dictionary payload{{"k", "v"}};
  const std::string packet(TagReportingPacket(header, &payload).datagram());
  EXPECT_EQ(acknowledgedEvent(packet), 0x8001);
  EXPECT_EQ(acknowledgedEvent(packet.substr(0, 64)), 0x8001);
  EXPECT_EQ(acknowledgedEvent(packet.substr(0, 62)), 0x8001);
  EXPECT_EQ(acknowledgedEvent(std::string(60, 'x') + "\x01\x02"), 0x0102);
}

TEST(TagReportingPacketTest, AnAcknowledgementThatIsTooShortIsNone) {
  const std::string packet(TagReportingPacket({}, nullptr).datagram());
  EXPECT_EQ(acknowledgedEvent(packet.substr(0, 61)), std::nullopt);
  EXPECT_EQ(acknowledgedEvent(""), std::nullopt);
}

}  // namespace
}  // namespace corvid
