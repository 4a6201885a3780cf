// Reads what crosses the network between a dashboard backend and its server, from bytes that
// nobody has checked.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "backends/dashboard/TagReportingPacket.h"
#include "base/Result.h"
#include "base/Value.h"

namespace corvid {

// The header's numbers; `datagram` must have at least the header's 64 bytes.
TagReportingPacketHeader readHeader(std::string_view datagram);

struct ReadPacket {
  TagReportingPacketHeader header;
  std::string_view payload;  // within the datagram
};

// A packet as a server takes it: its size, its kind and its own word on its length must agree.
Result<ReadPacket> readPacket(std::string_view datagram);

// The pairs of a packet's text, values with their escapes undone. A blank stands unescaped in
// values, so a key is taken to have none and no "=" either; a pair that was cut keeps what is left.
Dictionary pairsOfPayload(std::string_view payload);

// The event that an acknowledgement is for; nothing where it is too short to say. Only the two
// bytes of the event number are looked at.
std::optional<std::uint16_t> acknowledgedEvent(std::string_view datagram);

}  // namespace corvid
