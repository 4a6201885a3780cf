// Packets as a dashboard server reads them, from bytes that nobody has checked.
#pragma once

#include <string_view>

#include "backends/dashboard/TagReportingPacket.h"
#include "base/Result.h"
#include "base/Value.h"

namespace corvid::lab {

struct ReadPacket {
  TagReportingPacketHeader header;
  std::string_view payload;  // within the datagram
};

// A packet as a server takes it: its size, its kind and its own word on its length must agree.
Result<ReadPacket> readPacket(std::string_view datagram);

// The pairs of a packet's text, values with their escapes undone. A blank stands unescaped in
// values, so a key is taken to have none and no "=" either; a pair that was cut keeps what is left.
Dictionary pairsOfPayload(std::string_view payload);

}  // namespace corvid::lab
