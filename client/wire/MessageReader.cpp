#include "client/wire/MessageReader.h"

namespace corvid::library::wire {

namespace {

constexpr std::size_t wordBytes = 8;
constexpr std::size_t mostSegments = 512;
// Deeper than any message of the protocol, values within each other included.
constexpr std::size_t mostDepth = 80;
// Each word once and one more for each struct and list are twice a message at most; a reader that
// takes nothing apart twice has as much again.
constexpr std::size_t mostReadings = 4;

enum Kind { aStruct = 0, aList = 1, aFarPointer = 2 };
enum Elements { bytesEach = 2, structs = 7 };

Kind kindOf(std::uint64_t pointer) { return static_cast<Kind>(pointer & 3); }
Size sizeOf(std::uint64_t pointer) {
  return {static_cast<std::uint16_t>(pointer >> 32), static_cast<std::uint16_t>(pointer >> 48)};
}
std::size_t wordsOf(Size size) { return std::size_t{size.data} + size.pointers; }
// Where a pointer that stands there leads to, in words of its segment.
std::size_t targetOf(std::size_t at, std::uint64_t pointer) {
  const auto offset = static_cast<std::int32_t>(static_cast<std::uint32_t>(pointer)) >> 2;
  const auto target = static_cast<std::int64_t>(at) + 1 + offset;
  if (target < 0) throw BadMessage("a pointer that leads out of its segment");
  return static_cast<std::size_t>(target);
}
Elements elementsOf(std::uint64_t pointer) { return static_cast<Elements>(pointer >> 32 & 7); }
std::size_t countOf(std::uint64_t pointer) { return static_cast<std::size_t>(pointer >> 35); }

std::size_t segmentsIn(std::string_view stream) {
  const std::size_t count = std::size_t{loadLittle<std::uint32_t>(stream.data())} + 1;
  if (count > mostSegments) throw BadMessage("a message of too many segments");
  return count;
}
// The count, the sizes, and what fills the last word.
std::size_t headerBytes(std::size_t segments) { return (segments / 2 + 1) * wordBytes; }
std::size_t segmentBytes(std::string_view stream, std::size_t index) {
  return loadLittle<std::uint32_t>(stream.data() + 4 * (index + 1)) * wordBytes;
}

}  // namespace

std::optional<std::size_t> MessageReader::sizeOf(std::string_view stream, std::size_t most) {
  if (stream.size() < wordBytes) return std::nullopt;
  const std::size_t segments = segmentsIn(stream);
  std::size_t bytes = headerBytes(segments);
  if (stream.size() < bytes) return std::nullopt;
  for (std::size_t i = 0; i < segments; ++i) bytes += segmentBytes(stream, i);
  if (bytes > most) throw BadMessage("a message that is too large");
  return bytes;
}

MessageReader::MessageReader(std::string_view message)
    : _wordsLeft(mostReadings * message.size() / wordBytes) {
  const std::size_t segments = segmentsIn(message);
  _segments.reserve(segments);
  std::size_t at = headerBytes(segments);
  for (std::size_t i = 0; i < segments; ++i) {
    const std::size_t bytes = segmentBytes(message, i);
    _segments.push_back(message.substr(at, bytes));
    at += bytes;
  }
}

void MessageReader::spend(std::size_t words) const {
  if (words > _wordsLeft) throw BadMessage("a message that leads to the same words over and over");
  _wordsLeft -= words;
}

void MessageReader::require(std::size_t segment, std::size_t at, std::size_t words) const {
  if (segment >= _segments.size()) throw BadMessage("a segment that is not there");
  const std::size_t size = _segments[segment].size() / wordBytes;
  if (at > size || words > size - at) throw BadMessage("a pointer that leads out of its segment");
}

std::uint64_t MessageReader::word(std::size_t segment, std::size_t at) const {
  require(segment, at, 1);
  return loadLittle<std::uint64_t>(_segments[segment].data() + at * wordBytes);
}

MessageReader::Target MessageReader::follow(std::size_t segment, std::size_t pointer) const {
  const std::uint64_t near = word(segment, pointer);
  if (kindOf(near) != aFarPointer) return {segment, targetOf(pointer, near), near};
  const auto landsIn = static_cast<std::size_t>(near >> 32);
  const auto landsAt = static_cast<std::size_t>(near >> 3 & 0x1fffffff);
  const bool isDouble = (near & 4) != 0;
  const std::uint64_t pad = word(landsIn, landsAt);
  if (!isDouble) {
    if (kindOf(pad) == aFarPointer) throw BadMessage("a far pointer to another");
    return {landsIn, targetOf(landsAt, pad), pad};
  }
  return {static_cast<std::size_t>(pad >> 32), static_cast<std::size_t>(pad >> 3 & 0x1fffffff),
          word(landsIn, landsAt + 1)};
}

MessageReader::Struct MessageReader::place(std::size_t segment, std::size_t at, Size size,
                                           std::size_t depth) const {
  require(segment, at, wordsOf(size));
  if (depth > mostDepth) throw BadMessage("a message nested too deeply");
  spend(wordsOf(size) + 1);
  Struct result;
  result._message = this;
  result._data = _segments[segment].substr(at * wordBytes, size.data * wordBytes);
  result._segment = segment;
  result._pointers = at + size.data;
  result._pointerCount = size.pointers;
  result._depth = depth;
  return result;
}

MessageReader::Struct MessageReader::structAt(std::size_t segment, std::size_t pointer,
                                              std::size_t depth) const {
  if (word(segment, pointer) == 0) return {};
  const Target target = follow(segment, pointer);
  if (kindOf(target.description) != aStruct) throw BadMessage("a pointer of another kind");
  const Size size = wire::sizeOf(target.description);
  // One without content may point to its own pointer.
  if (wordsOf(size) == 0) return {};
  return place(target.segment, target.at, size, depth);
}

MessageReader::Struct MessageReader::root() const { return structAt(0, 0, 0); }

bool MessageReader::Struct::has(Pointer at) const {
  return at.index < _pointerCount && _message->word(_segment, _pointers + at.index) != 0;
}

MessageReader::Struct MessageReader::Struct::structAt(Pointer at) const {
  if (!has(at)) return {};
  return _message->structAt(_segment, _pointers + at.index, _depth + 1);
}

MessageReader::List MessageReader::Struct::listAt(Pointer at) const {
  if (!has(at)) return {};
  const Target target = _message->follow(_segment, _pointers + at.index);
  if (kindOf(target.description) != aList || elementsOf(target.description) != structs)
    throw BadMessage("a pointer of another kind");
  const std::size_t words = countOf(target.description);
  _message->require(target.segment, target.at, words + 1);
  const std::uint64_t tag = _message->word(target.segment, target.at);
  const Size size = wire::sizeOf(tag);
  List list;
  list._count = static_cast<std::size_t>(tag >> 2 & 0x3fffffff);
  list._words = wordsOf(size);
  if (kindOf(tag) != aStruct || list._count > words || list._count * list._words > words)
    throw BadMessage("a list that is longer than its words");
  if (list._count == 0) return {};
  list._at = target.at + 1;
  list._first = _message->place(target.segment, list._at, size, _depth + 1);
  return list;
}

MessageReader::Struct MessageReader::List::operator[](std::size_t index) const {
  const std::size_t dataWords = _first._data.size() / wordBytes;
  return _first._message->place(
      _first._segment, _at + index * _words,
      {static_cast<std::uint16_t>(dataWords), static_cast<std::uint16_t>(_first._pointerCount)},
      _first._depth);
}

std::string_view MessageReader::Struct::bytesAt(Pointer at) const {
  if (!has(at)) return {};
  const Target target = _message->follow(_segment, _pointers + at.index);
  if (kindOf(target.description) != aList || elementsOf(target.description) != bytesEach)
    throw BadMessage("a pointer of another kind");
  const std::size_t length = countOf(target.description);
  const std::size_t words = (length + wordBytes - 1) / wordBytes;
  _message->require(target.segment, target.at, words);
  _message->spend(words);
  return _message->_segments[target.segment].substr(target.at * wordBytes, length);
}

std::string_view MessageReader::Struct::text(Pointer at) const {
  if (!has(at)) return {};
  std::string_view bytes = bytesAt(at);
  if (bytes.empty() || bytes.back() != '\0') throw BadMessage("a text without its end");
  bytes.remove_suffix(1);
  return bytes;
}

std::string_view MessageReader::Struct::data(Pointer at) const { return bytesAt(at); }

}  // namespace corvid::library::wire
