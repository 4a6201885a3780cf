// Form: "bplist00", the objects, a table of their offsets, and a trailer of 32 bytes. An object is
// a marker byte (type in the high half, size in the low one) and its content; containers refer to
// other objects by number. All numbers are big-endian.
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "base/Text.h"
#include "platform/data/PropertyListForms.h"

namespace corvid {

namespace {

constexpr std::string_view header = "bplist0";  // and one character of the version
constexpr std::size_t headerLength = 8;
constexpr std::size_t trailerLength = 32;

// What a value asks for when it is expanded, each part of it that is shared counted at each place.
struct Extent {
  std::size_t values = 1;
  std::size_t contentBytes = 0;  // of strings, keys and data
  std::size_t depth = 0;         // levels of containers
};

struct Object {
  enum class State { unread, open, done };
  State state = State::unread;
  Value value;  // null: of a type that Value lacks
  Extent extent;
};

// Reads each object once, from the root down, however often it is referred to. Nothing in the bytes
// is believed: not a size, a number of objects, an offset or a reference. The first fault is
// thrown.
class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, const PropertyListLimits& limits)
      : _bytes(bytes), _limits(limits) {}

  Value read() {
    const Object& root = objectAt(readTrailer(), 0);
    if (root.value.isNull()) throw UnusableList("The property list holds no value");
    return root.value;
  }

 private:
  // Gives the root's number.
  std::uint64_t readTrailer();
  const Object& objectAt(std::uint64_t number, std::size_t level);
  void decode(Object& object, std::size_t at, std::size_t level);
  Value decodeNumber(unsigned type, unsigned size, std::size_t at) const;
  std::string decodeText(bool isUTF16, std::size_t at, std::size_t length) const;
  void decodeArray(Object& object, std::size_t at, std::size_t count, std::size_t level);
  void decodeDictionary(Object& object, std::size_t at, std::size_t count, std::size_t level);
  // The element that the reference at `at` names, counted into `sum`.
  const Object& element(std::size_t at, std::size_t level, Extent& sum);
  // Of the object whose content is at `at`, which moves behind a count of its own.
  std::size_t readCount(unsigned size, std::size_t& at) const;

  std::uint64_t numberAt(std::size_t at, std::size_t size) const {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i)
      number = number << 8 | static_cast<unsigned char>(_bytes[at + i]);
    return number;
  }
  // Whether `count` units of `size` bytes lie before the offset table.
  bool holds(std::size_t at, std::size_t count, std::size_t size) const {
    return count <= (_tableOffset - at) / size;
  }
  [[noreturn]] static void fail(std::size_t at, std::string_view reason) {
    throw UnusableList(fmt::format("{} at byte {}", reason, at));
  }
  static void checkLimit(std::string_view what, std::size_t number, std::size_t limit) {
    if (number > limit) throw UnusableList(UnusableList::tooMany(what, limit));
  }

  static constexpr std::string_view endsOutside = "An object ends outside the property list";

  const std::string_view _bytes;
  const PropertyListLimits& _limits;
  std::size_t _offsetSize = 0;
  std::size_t _referenceSize = 0;
  std::size_t _tableOffset = 0;
  std::vector<Object> _objects;
};

std::uint64_t BinaryReader::readTrailer() {
  if (!_bytes.starts_with(header)) fail(0, "Unknown version of the binary form");
  if (_bytes.size() < headerLength + trailerLength)
    fail(_bytes.size(), "The binary form ends early");
  const std::size_t trailer = _bytes.size() - trailerLength;
  _offsetSize = numberAt(trailer + 6, 1);
  _referenceSize = numberAt(trailer + 7, 1);
  const std::uint64_t count = numberAt(trailer + 8, 8);
  const std::uint64_t table = numberAt(trailer + 24, 8);
  if (_offsetSize < 1 || _offsetSize > 8 || _referenceSize < 1 || _referenceSize > 8)
    fail(trailer + 6, "Impossible size of offsets or references");
  if (table < headerLength || table > trailer)
    fail(trailer + 24, "The offset table lies outside the property list");
  _tableOffset = static_cast<std::size_t>(table);
  if (count == 0 || count > (trailer - _tableOffset) / _offsetSize)
    fail(trailer + 8, "Impossible number of objects");
  // A dictionary's entry is two objects, but one value.
  checkLimit("values", (count - 1) / 2 + 1, _limits.values);
  _objects.resize(static_cast<std::size_t>(count));
  return numberAt(trailer + 16, 8);
}

const Object& BinaryReader::objectAt(std::uint64_t number, std::size_t level) {
  if (number >= _objects.size())
    throw UnusableList(fmt::format("There is no object {} among {}", number, _objects.size()));
  Object& object = _objects[static_cast<std::size_t>(number)];
  if (object.state == Object::State::open)
    throw UnusableList(fmt::format("Object {} contains itself", number));
  if (object.state == Object::State::done) return object;
  const std::size_t entry = _tableOffset + static_cast<std::size_t>(number) * _offsetSize;
  const std::uint64_t at = numberAt(entry, _offsetSize);
  if (at < headerLength || at >= _tableOffset) fail(entry, "Offset outside the property list");
  object.state = Object::State::open;
  decode(object, static_cast<std::size_t>(at), level);
  object.state = Object::State::done;
  return object;
}

void BinaryReader::decode(Object& object, std::size_t at, std::size_t level) {
  const auto marker = static_cast<unsigned>(numberAt(at, 1));
  const unsigned type = marker >> 4;
  const unsigned size = marker & 0xF;
  std::size_t content = at + 1;
  std::size_t unit = 1;
  switch (type) {
    case 0x0:
      if (size == 8 || size == 9)
        object.value = size == 9;
      else if (size != 0)
        fail(at, "Unknown object");
      return;
    case 0x1:
    case 0x2:
    case 0x3: object.value = decodeNumber(type, size, at); return;
    case 0x8:  // UID
      if (!holds(content, size + 1, 1)) fail(at, endsOutside);
      return;
    case 0x4:
    case 0x5: break;
    case 0x6: unit = 2; break;
    case 0xA:
    case 0xB:
    case 0xC: unit = _referenceSize; break;
    case 0xD: unit = 2 * _referenceSize; break;
    default: fail(at, "Unknown object");
  }

  const std::size_t count = readCount(size, content);
  if (!holds(content, count, unit)) fail(at, endsOutside);
  switch (type) {
    case 0x4:
      object.value = Data{std::string(_bytes.substr(content, count))};
      object.extent.contentBytes = count;
      break;
    case 0x5:
    case 0x6: {
      std::string text = decodeText(type == 0x6, content, count);
      object.extent.contentBytes = text.size();
      object.value = std::move(text);
      break;
    }
    case 0xA: decodeArray(object, content, count, level + 1); break;
    case 0xD: decodeDictionary(object, content, count, level + 1); break;
    default: break;  // a set
  }
}

Value BinaryReader::decodeNumber(unsigned type, unsigned size, std::size_t at) const {
  const std::size_t length = std::size_t{1} << size;
  const bool known = type == 0x1 ? size <= 4 : type == 0x2 ? size == 2 || size == 3 : size == 3;
  if (!known) fail(at, "Unknown object");
  if (!holds(at + 1, length, 1)) fail(at, endsOutside);
  // Of 16 bytes the lower half counts; shorter integers than 8 bytes have no sign.
  const std::uint64_t bits = length == 16 ? numberAt(at + 9, 8) : numberAt(at + 1, length);
  if (type == 0x1) return static_cast<std::int64_t>(bits);
  if (type == 0x3) return Date{std::bit_cast<double>(bits) + secondsFrom1970To2001};
  if (length == 8) return std::bit_cast<double>(bits);
  return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
}

std::string BinaryReader::decodeText(bool isUTF16, std::size_t at, std::size_t length) const {
  if (!isUTF16) {
    const std::string_view text = _bytes.substr(at, length);
    if (!isValidUTF8(text)) fail(at, "A string is not UTF-8");
    return std::string(text);
  }
  std::string text;
  text.reserve(length);
  for (std::size_t i = 0; i < length; ++i) {
    auto character = static_cast<char32_t>(numberAt(at + 2 * i, 2));
    if (character >= 0xD800 && character < 0xE000) {
      const auto low = ++i < length ? static_cast<char32_t>(numberAt(at + 2 * i, 2)) : 0;
      if (character >= 0xDC00 || low < 0xDC00 || low >= 0xE000)
        fail(at, "Ill-formed UTF-16 in a string");
      character = 0x10000 + ((character & 0x3FF) << 10 | (low & 0x3FF));
    }
    appendUTF8(text, character);
  }
  return text;
}

void BinaryReader::decodeArray(Object& object, std::size_t at, std::size_t count,
                               std::size_t level) {
  checkLimit("levels", level, _limits.depth);
  object.extent.depth = 1;
  Array elements;
  for (std::size_t i = 0; i < count; ++i, at += _referenceSize) {
    const Object& read = element(at, level, object.extent);
    if (!read.value.isNull()) elements.push_back(read.value);
  }
  object.value = std::move(elements);
}

void BinaryReader::decodeDictionary(Object& object, std::size_t at, std::size_t count,
                                    std::size_t level) {
  checkLimit("levels", level, _limits.depth);
  object.extent.depth = 1;
  Dictionary entries;
  for (std::size_t i = 0; i < count; ++i, at += _referenceSize) {
    Extent keyExtent;
    const Object& key = element(at, level, keyExtent);
    if (key.value.string() == nullptr) fail(at, "A key is not a string");
    object.extent.contentBytes += key.extent.contentBytes;
    const Object& value = element(at + count * _referenceSize, level, object.extent);
    if (!value.value.isNull()) entries.set(*key.value.string(), value.value);
  }
  object.value = std::move(entries);
}

const Object& BinaryReader::element(std::size_t at, std::size_t level, Extent& sum) {
  const Object& read = objectAt(numberAt(at, _referenceSize), level);
  sum.values += read.extent.values;
  sum.contentBytes += read.extent.contentBytes;
  sum.depth = std::max(sum.depth, read.extent.depth + 1);
  // Each is at most the limit so far, so that the sums cannot overflow.
  checkLimit("values", sum.values, _limits.values);
  checkLimit("bytes of content", sum.contentBytes, _limits.bytes);
  checkLimit("levels", level - 1 + sum.depth, _limits.depth);
  return read;
}

std::size_t BinaryReader::readCount(unsigned size, std::size_t& at) const {
  if (size < 0xF) return size;
  const std::uint64_t marker = at < _tableOffset ? numberAt(at, 1) : 0;
  const std::size_t length = std::size_t{1} << (marker & 0xF);
  if (marker >> 4 != 0x1 || length > 8 || !holds(at + 1, length, 1))
    fail(at, "An object has an impossible size");
  const std::size_t count = numberAt(at + 1, length);
  at += 1 + length;
  return count;
}

}  // namespace

Value readBinaryPropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  return BinaryReader(bytes, limits).read();
}

}  // namespace corvid
