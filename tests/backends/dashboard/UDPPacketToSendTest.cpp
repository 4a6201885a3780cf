#include <gtest/gtest.h>

#include <string>

#include "backends/dashboard/PacketDelivery.h"

namespace corvid {
namespace {

TEST(UDPPacketToSendTest, CopiesItsBytesAndBeginsUnsent) {
  std::string bytes("a\0b", 3);
  const auto packet = UDPPacketToSend::initWithBytes(bytes, 65535);
  bytes.assign(3, 'x');
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->data(), std::string_view("a\0b", 3));
  EXPECT_EQ(packet->eventNumber(), 65535);
  EXPECT_EQ(packet->state(), UDPPacketToSend::State::notSent);
  EXPECT_EQ(packet->numberOfChecks(), 0);
  EXPECT_EQ(packet->numberOfRetransmits(), 0);
}

TEST(UDPPacketToSendTest, KeepsWhatItIsGiven) {
  auto packet = UDPPacketToSend::initWithBytes("", 1);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->data(), "");
  packet->setState(UDPPacketToSend::State::sent);
  packet->setNumberOfChecks(3);
  packet->setNumberOfRetransmits(2);
  packet->setEventNumber(258);
  packet->setData(UDPPacketToSend::Bytes(new char[2]{'o', 'k'}), 2);
  const UDPPacketToSend moved = std::move(*packet);
  EXPECT_EQ(moved.state(), UDPPacketToSend::State::sent);
  EXPECT_EQ(moved.numberOfChecks(), 3);
  EXPECT_EQ(moved.numberOfRetransmits(), 2);
  EXPECT_EQ(moved.eventNumber(), 258);
  EXPECT_EQ(moved.data(), "ok");
}

}  // namespace
}  // namespace corvid
