// Makes packets of events and hands them to their delivery.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backends/CorvidBackend.h"
#include "backends/dashboard/PacketDelivery.h"
#include "backends/dashboard/TagReportingPacket.h"

namespace corvid {

// Threads: any; a packet is built on its caller's.
class PacketSender {
 public:
  // `usingProfile`: the server's address comes from a storebag.
  PacketSender(const BackendIdentity& identity, bool usingProfile,
               std::shared_ptr<PacketDelivery> delivery);

  // Sends one packet and answers with its log line; nothing (logged) where there is no memory for
  // it. `payload` may be null.
  std::optional<std::string> send(const Dictionary* payload, const TimeValue& timestamp,
                                  std::uint16_t method, std::uint16_t respCode,
                                  EventID eventID) const;
  // The line of a packet, cut after 1151 bytes; what is no UTF-8 is then replaced.
  static std::string writeLocalLog(const TagReportingPacket& packet);

 private:
  const std::shared_ptr<PacketDelivery> _delivery;
  TagReportingPacketHeader _tagReportingPacketHeader;  // what all packets share; constant
};

}  // namespace corvid
