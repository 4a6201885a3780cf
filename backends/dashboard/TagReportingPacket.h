// One event as the datagram that a dashboard server receives; docs/dashboard-packet.md has the
// layout byte by byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// Bits of `flags`.
inline constexpr std::uint16_t packetFlagReliable = 1;         // the sender wants acknowledgements
inline constexpr std::uint16_t packetFlagExplicitAddress = 2;  // the address is from no profile

// The fixed part as plain numbers: complements and byte order are the wire's business.
struct TagReportingPacketHeader {
  static constexpr std::size_t size = 64;
  static constexpr std::size_t udidSize = 40;
  static constexpr std::size_t eventIDOffset = 60;
  static constexpr std::uint8_t eventPacket = 1;

  std::uint8_t selfVersionMajor = 0;
  std::uint8_t compType = 0;
  std::uint8_t packetKind = eventPacket;
  std::uint8_t msec4 = 0;  // milliseconds of the time, in steps of 4
  std::uint32_t timestamp = 0;
  std::uint32_t sessionID = 0;
  std::uint16_t clientVersion = 0;
  std::uint16_t length = size;  // of the whole datagram
  std::uint16_t method = 0;
  std::uint16_t respCode = 0;
  std::array<char, udidSize> udid{};  // filled up with zero bytes
  std::uint16_t eventID = 0;
  std::uint16_t flags = 0;

  // Takes the first 40 bytes.
  void setUdid(std::string_view text);
  std::string_view udidText() const;  // up to the first zero byte

  bool operator==(const TagReportingPacketHeader&) const = default;
};

// Threads: distinct packets are independent; a packet is constant after construction.
class TagReportingPacket {
 public:
  static constexpr std::size_t payloadSize = 1024;  // with the zero byte at its end
  static constexpr std::size_t size = TagReportingPacketHeader::size + payloadSize;

  // Writes the datagram; the header's length is worked out. `payload` may be null, which is an
  // empty one. What does not fit is cut at the byte.
  TagReportingPacket(const TagReportingPacketHeader& header, const Dictionary* payload);

  // What goes on the wire: 64 to 1087 bytes.
  std::string_view datagram() const {
    return {_bytes.data(), TagReportingPacketHeader::size + _payloadLength};
  }
  // Its text: " key=value" for each entry, the shortest value first.
  std::string_view payload() const {
    return {_bytes.data() + TagReportingPacketHeader::size, _payloadLength};
  }

 private:
  void writeHeader(TagReportingPacketHeader header);
  void writePayload(const Dictionary& payload);

  std::array<char, size> _bytes{};
  std::size_t _payloadLength = 0;
};

// The header's numbers; `datagram` must have at least the header's 64 bytes.
TagReportingPacketHeader readHeader(std::string_view datagram);

// The event that an acknowledgement is for; nothing where it is too short to say. Only the two
// bytes of the event number are looked at, in bytes that nobody has checked.
std::optional<std::uint16_t> acknowledgedEvent(std::string_view datagram);

// How a value stands in a packet: strings as they are, numbers in decimal (booleans 1 and 0, reals
// by the shortest text that reads back the same), anything else "null".
std::string descriptionForObject(const Value& object);

// `text` without line feeds, with "\" and "=" each behind a "\"; "empty" where nothing is left.
std::string sanitize(std::string_view text);

}  // namespace corvid
