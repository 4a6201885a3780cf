#include "tools/lab/PacketReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace corvid::lab {

namespace {

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

}  // namespace corvid::lab
