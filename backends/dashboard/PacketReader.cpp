#include "backends/dashboard/PacketReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace corvid {

namespace {

class HeaderReader {
 public:
  explicit HeaderReader(const char* at) : _at(at) {}
  std::uint8_t take8() { return static_cast<std::uint8_t>(*_at++); }
  std::uint16_t take16() {
    const unsigned high = take8();
    return static_cast<std::uint16_t>(high << 8 | take8());
  }
  std::uint32_t take32() {
    const std::uint32_t high = take16();
    return high << 16 | take16();
  }
  std::uint16_t takeComplement16() { return static_cast<std::uint16_t>(~take16()); }
  template <class Bytes>
  void takeBytes(Bytes& bytes) {
    std::copy_n(_at, bytes.size(), bytes.begin());
    _at += bytes.size();
  }

 private:
  const char* _at;
};

// The position of the next "=" that is no part of a value.
std::size_t nextEqualsSign(std::string_view text, std::size_t from) {
  for (std::size_t at = from; at < text.size(); ++at) {
    if (text[at] == '\\')
      ++at;
    else if (text[at] == '=')
      return at;
  }
  return std::string_view::npos;
}

std::string unescaped(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\' && at + 1 < text.size()) ++at;
    plain += text[at];
  }
  return plain;
}

}  // namespace

TagReportingPacketHeader readHeader(std::string_view datagram) {
  HeaderReader reader(datagram.data());
  TagReportingPacketHeader header;
  header.selfVersionMajor = reader.take8();
  header.compType = reader.take8();
  header.packetKind = reader.take8();
  header.msec4 = reader.take8();
  header.timestamp = reader.take32();
  header.sessionID = ~reader.take32();
  header.clientVersion = reader.takeComplement16();
  header.length = reader.takeComplement16();
  header.method = reader.take16();
  header.respCode = reader.take16();
  reader.takeBytes(header.udid);
  header.eventID = reader.take16();
  header.flags = reader.take16();
  return header;
}

Result<ReadPacket> readPacket(std::string_view datagram) {
  if (datagram.size() < TagReportingPacketHeader::size ||
      datagram.size() >= TagReportingPacket::size)
    return Failure{fmt::format("{} bytes are no packet", datagram.size())};
  const TagReportingPacketHeader header = readHeader(datagram);
  if (header.packetKind != TagReportingPacketHeader::eventPacket)
    return Failure{fmt::format("packets of kind {} are unknown", header.packetKind)};
  if (header.length != datagram.size())
    return Failure{fmt::format("{} bytes came of a packet that says it has {}", datagram.size(),
                               header.length)};
  const std::string_view payload = datagram.substr(TagReportingPacketHeader::size);
  if (!payload.empty() && payload.front() != ' ')
    return Failure{"the packet's text does not begin with a blank"};
  if (payload.find('\0') != std::string_view::npos)
    return Failure{"the packet's text holds a zero byte"};
  return ReadPacket{header, payload};
}

Dictionary pairsOfPayload(std::string_view payload) {
  Dictionary pairs;
  if (payload.empty()) return pairs;
  std::size_t key = 1;
  std::size_t equals = std::min(nextEqualsSign(payload, key), payload.size());
  for (;;) {
    // The pair goes on to the blank before the next one's key.
    std::size_t end = payload.size();
    std::size_t next = equals;
    while ((next = nextEqualsSign(payload, next + 1)) != std::string_view::npos) {
      const std::size_t blank = payload.rfind(' ', next);
      if (blank != std::string_view::npos && blank > equals) {
        end = blank;
        break;
      }
    }
    const std::size_t value = std::min(equals + 1, payload.size());
    pairs.set(std::string(payload.substr(key, equals - key)),
              unescaped(payload.substr(value, end - value)));
    if (end == payload.size()) return pairs;
    key = end + 1;
    equals = next;
  }
}

std::optional<std::uint16_t> acknowledgedEvent(std::string_view datagram) {
  constexpr std::size_t offset = TagReportingPacketHeader::eventIDOffset;
  if (datagram.size() < offset + 2) return std::nullopt;
  return HeaderReader(datagram.data() + offset).take16();
}

}  // namespace corvid
