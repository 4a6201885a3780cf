// The reader of dashboard packets: what it takes can be written again, and its text is taken apart
// and put together without loss of anything but order and cut ends.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/lab/PacketReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvid;
  using namespace corvid::lab;
  const std::string datagram(reinterpret_cast<const char*>(data), size);
  const auto packet = readPacket(datagram);
  if (!packet) return 0;
  const Dictionary pairs = pairsOfPayload(packet.value().payload);
  if (pairs.empty() != packet.value().payload.empty()) std::abort();

  // The length in the header depends on the text.
  TagReportingPacketHeader header = packet.value().header;
  const TagReportingPacket again(header, &pairs);
  const auto reread = readPacket(again.datagram());
  if (!reread) std::abort();
  header.length = static_cast<std::uint16_t>(again.datagram().size());
  if (!(reread.value().header == header)) std::abort();
  return 0;
}
