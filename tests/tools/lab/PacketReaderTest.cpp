#include <gtest/gtest.h>

#include <string>

#include "tools/lab/PacketReader.h"

namespace corvid::lab {
namespace {

std::string datagramOf(const TagReportingPacketHeader& header, const Dictionary& payload = {}) {
  return std::string(TagReportingPacket(header, &payload).datagram());
}

TagReportingPacketHeader someHeader() {
  TagReportingPacketHeader header;
  header.selfVersionMajor = 255;
  header.compType = 17;
  header.msec4 = 249;
  header.timestamp = 0xFEDCBA98;
  header.sessionID = 0x12345678;
  header.clientVersion = 0xABCD;
  header.method = 1;
  header.respCode = 0xFFFF;
  header.setUdid("an identifier");
  header.eventID = 0x8001;
  header.flags = 3;
  return header;
}

TEST(PacketReaderTest, ReadsBackWhatWasWritten) {
  TagReportingPacketHeader header = someHeader();
  const std::string datagram = datagramOf(header, {{"key", "value"}, {"n", 1}});
  const auto packet = readPacket(datagram);
  ASSERT_TRUE(packet) << packet.failure().message;
  header.length = 64 + 14;
  EXPECT_EQ(packet.value().header, header);
  EXPECT_EQ(packet.value().payload, " n=1 key=value");
  EXPECT_EQ(packet.value().header.udidText(), "an identifier");
}

TEST(PacketReaderTest, RefusesWhatIsNoPacket) {
  const auto failure = [](const std::string& bytes) {
    const auto packet = readPacket(bytes);
    return packet ? "read" : packet.failure().message;
  };
  const std::string good = datagramOf(someHeader(), {{"k", "v"}});
  EXPECT_EQ(failure(good), "read");
  EXPECT_EQ(failure(""), "0 bytes are no packet");
  EXPECT_EQ(failure(good.substr(0, 63)), "63 bytes are no packet");
  EXPECT_EQ(failure(std::string(1088, 'x')), "1088 bytes are no packet");
  EXPECT_EQ(failure(good.substr(0, 67)), "67 bytes came of a packet that says it has 68");
  std::string other = good;
  other[2] = 2;
  EXPECT_EQ(failure(other), "packets of kind 2 are unknown");
  other = good;
  other[64] = 'k';
  EXPECT_EQ(failure(other), "the packet's text does not begin with a blank");
  other = good;
  other[66] = '\0';
  EXPECT_EQ(failure(other), "the packet's text holds a zero byte");
}

TEST(PacketReaderTest, TakesPairsApart) {
  const Dictionary payload{{"a", "x=y\\z"}, {"text", "two words"}, {"n", 4}, {"none", ""}};
  const TagReportingPacket packet({}, &payload);
  EXPECT_EQ(pairsOfPayload(packet.payload()),
            (Dictionary{{"a", "x=y\\z"}, {"text", "two words"}, {"n", "4"}, {"none", "empty"}}));
  EXPECT_EQ(pairsOfPayload(""), Dictionary());
}

TEST(PacketReaderTest, TakesWhatIsLeftOfACutPair) {
  EXPECT_EQ(pairsOfPayload(" a=1 b=tw"), (Dictionary{{"a", "1"}, {"b", "tw"}}));
  EXPECT_EQ(pairsOfPayload(" a=1\\"), (Dictionary{{"a", "1\\"}}));
  EXPECT_EQ(pairsOfPayload(" a="), (Dictionary{{"a", ""}}));
  EXPECT_EQ(pairsOfPayload(" a"), (Dictionary{{"a", ""}}));
  EXPECT_EQ(pairsOfPayload(" "), (Dictionary{{"", ""}}));
  EXPECT_EQ(pairsOfPayload(" a=1 b"), (Dictionary{{"a", "1 b"}})) << "as a value with a blank";
}

}  // namespace
}  // namespace corvid::lab
