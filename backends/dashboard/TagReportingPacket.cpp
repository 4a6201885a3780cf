#include "backends/dashboard/TagReportingPacket.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "base/Text.h"

namespace corvid {

namespace {

// Big-endian numbers, one after the other.
class HeaderWriter {
 public:
  explicit HeaderWriter(char* at) : _at(at) {}
  void put8(std::uint8_t value) { *_at++ = static_cast<char>(value); }
  void put16(std::uint16_t value) {
    put8(static_cast<std::uint8_t>(value >> 8));
    put8(static_cast<std::uint8_t>(value));
  }
  void put32(std::uint32_t value) {
    put16(static_cast<std::uint16_t>(value >> 16));
    put16(static_cast<std::uint16_t>(value));
  }
  void putComplement16(std::uint16_t value) { put16(static_cast<std::uint16_t>(~value)); }
  void putBytes(std::string_view bytes) { _at = std::copy(bytes.begin(), bytes.end(), _at); }

 private:
  char* _at;
};

// The packet's text ends at a zero byte, so what stands in it cannot hold one.
std::string_view upToZeroByte(std::string_view text) { return text.substr(0, text.find('\0')); }

// A pair of the payload on its way into the packet.
struct Pair {
  std::string_view key;
  std::string value;  // not yet escaped
  std::size_t length;
};

}  // namespace

void TagReportingPacketHeader::setUdid(std::string_view text) {
  udid.fill(0);
  std::ranges::copy(text.substr(0, udidSize), udid.begin());
}

std::string_view TagReportingPacketHeader::udidText() const {
  return upToZeroByte({udid.data(), udid.size()});
}

TagReportingPacket::TagReportingPacket(const TagReportingPacketHeader& header,
                                       const Dictionary* payload) {
  if (payload) writePayload(*payload);
  writeHeader(header);
}

void TagReportingPacket::writeHeader(const TagReportingPacketHeader& header) {
  HeaderWriter writer(_bytes.data());
  writer.put8(header.selfVersionMajor);
  writer.put8(header.compType);
  writer.put8(header.packetKind);
  writer.put8(header.msec4);
  writer.put32(header.timestamp);
  writer.put32(~header.sessionID);
  writer.putComplement16(header.clientVersion);
  writer.putComplement16(static_cast<std::uint16_t>(datagram().size()));
  writer.put16(header.method);
  writer.put16(header.respCode);
  writer.putBytes({header.udid.data(), header.udid.size()});
  writer.put16(header.eventID);
  writer.put16(header.flags);
}

void TagReportingPacket::writePayload(const Dictionary& payload) {
  std::vector<Pair> pairs;
  pairs.reserve(payload.size());
  for (const auto& [key, value] : payload) {
    std::string text = descriptionForObject(value);
    const std::size_t length = utf16Length(text);
    pairs.push_back({key, std::move(text), length});
  }
  std::ranges::stable_sort(pairs, {}, &Pair::length);
  std::string text;
  for (const Pair& pair : pairs) {
    if (text.size() >= payloadSize - 1) break;
    text =
        fmt::format("{} {}={}", text, upToZeroByte(pair.key), sanitize(upToZeroByte(pair.value)));
  }
  _payloadLength = std::min(text.size(), payloadSize - 1);
  std::copy_n(text.data(), _payloadLength, _bytes.data() + TagReportingPacketHeader::size);
}

std::string descriptionForObject(const Value& object) {
  if (const std::string* text = object.string()) return *text;
  if (const auto boolean = object.boolean()) return *boolean ? "1" : "0";
  if (const auto integer = object.integer()) return fmt::format("{}", *integer);
  if (const auto real = object.real()) return fmt::format("{}", *real);
  return "null";
}

std::string sanitize(std::string_view text) {
  std::string sanitized;
  sanitized.reserve(text.size());
  for (const char character : text) {
    if (character == '\n') continue;
    if (character == '\\' || character == '=') sanitized += '\\';
    sanitized += character;
  }
  return sanitized.empty() ? "empty" : sanitized;
}

}  // namespace corvid
