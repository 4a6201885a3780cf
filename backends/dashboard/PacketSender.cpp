#include "backends/dashboard/PacketSender.h"

#include <fmt/format.h>

#include <new>
#include <utility>

#include "base/Log.h"
#include "base/Text.h"
#include "config/Environment.h"

namespace corvid {

namespace {

constexpr std::size_t logLineSize = 1151;

}  // namespace

PacketSender::PacketSender(const BackendIdentity& identity, bool usingProfile,
                           std::shared_ptr<PacketDelivery> delivery)
    : _delivery(std::move(delivery)) {
  _tagReportingPacketHeader.selfVersionMajor = identity.selfVersionMajor;
  _tagReportingPacketHeader.compType = static_cast<std::uint8_t>(identity.compType);
  _tagReportingPacketHeader.sessionID = identity.sessionID;
  _tagReportingPacketHeader.clientVersion = identity.clientVersion;
  _tagReportingPacketHeader.setUdid(identity.udid.value_or(""));
  _tagReportingPacketHeader.flags =
      static_cast<std::uint16_t>((_delivery->reliableUDP() ? packetFlagReliable : 0) |
                                 (usingProfile ? 0 : packetFlagExplicitAddress));
}

std::optional<std::string> PacketSender::send(const Dictionary* payload, const TimeValue& timestamp,
                                              std::uint16_t method, std::uint16_t respCode,
                                              EventID eventID) const {
  TagReportingPacketHeader header = _tagReportingPacketHeader;
  header.msec4 = static_cast<std::uint8_t>(timestamp.microseconds / 4000);
  header.timestamp = static_cast<std::uint32_t>(timestamp.seconds);
  header.method = method;
  header.respCode = respCode;
  header.eventID = static_cast<std::uint16_t>(eventID);
  std::shared_ptr<const TagReportingPacket> tagReportingPacket(
      new (std::nothrow) TagReportingPacket(header, payload));
  if (!tagReportingPacket) {
    logError("DashboardBackend(sendMessage): can't malloc.");
    return std::nullopt;
  }
  std::string line = writeLocalLog(*tagReportingPacket);
  _delivery->deliver(std::move(tagReportingPacket), header.eventID);
  return line;
}

std::string PacketSender::writeLocalLog(const TagReportingPacket& packet) {
  const TagReportingPacketHeader header = readHeader(packet.datagram());
  std::string line = fmt::format(
      "{}.{:03} {} 127.0.0.1 {} {:5} {:5} {:5} {:5} {:5} {}", header.timestamp, header.msec4 * 4,
      header.udidText(), clientTagForClientType(header.compType), header.clientVersion,
      header.sessionID, header.eventID, header.method, header.respCode, packet.payload());
  if (line.size() > logLineSize) line.resize(logLineSize);
  return replacingInvalidUTF8(line);
}

}  // namespace corvid
