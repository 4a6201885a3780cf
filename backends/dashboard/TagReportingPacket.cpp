#include "backends/dashboard/TagReportingPacket.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "base/Text.h"

namespace corvid {

namespace {

// The header's fields in the order of the wire, each handed to `pass(value)`, or to
// `pass(value, true)` where the complement travels.
template <class Pass>
void passFields(TagReportingPacketHeader& header, Pass pass) {
  pass(header.selfVersionMajor);
  pass(header.compType);
  pass(header.packetKind);
  pass(header.msec4);
  pass(header.timestamp);
  pass(header.sessionID, true);
  pass(header.clientVersion, true);
  pass(header.length, true);
  pass(header.method);
  pass(header.respCode);
  for (char& character : header.udid) pass(character);
  pass(header.eventID);
  pass(header.flags);
}

template <class Number>
Number numberFrom(const char* bytes) {
  std::uint32_t number = 0;
  for (std::size_t at = 0; at < sizeof(Number); ++at)
    number = number << 8 | static_cast<std::uint8_t>(bytes[at]);
  return static_cast<Number>(number);
}

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

void TagReportingPacket::writeHeader(TagReportingPacketHeader header) {
  header.length = static_cast<std::uint16_t>(datagram().size());
  char* to = _bytes.data();
  passFields(header, [&](auto field, bool isComplement = false) {
    const auto number = static_cast<std::uint32_t>(isComplement ? ~field : field);
    for (std::size_t left = sizeof field; left-- > 0;)
      *to++ = static_cast<char>(number >> 8 * left);
  });
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

TagReportingPacketHeader readHeader(std::string_view datagram) {
  TagReportingPacketHeader header;
  const char* from = datagram.data();
  passFields(header, [&]<class Field>(Field& field, bool isComplement = false) {
    const auto number = numberFrom<Field>(from);
    field = static_cast<Field>(isComplement ? ~number : number);
    from += sizeof field;
  });
  return header;
}

std::optional<std::uint16_t> acknowledgedEvent(std::string_view datagram) {
  constexpr std::size_t offset = TagReportingPacketHeader::eventIDOffset;
  if (datagram.size() < offset + sizeof(std::uint16_t)) return std::nullopt;
  return numberFrom<std::uint16_t>(datagram.data() + offset);
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
