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
// is believed: not a size, a number of objects, an offset or a reference. The first fault ends it.
class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, const PropertyListLimits& limits)
      : _bytes(bytes), _limits(limits) {}

  Result<Value> read() {
    std::uint64_t root = 0;
    if (!readTrailer(root)) return _failure;
    const Object* object = objectAt(root, 0);
    if (object == nullptr) return _failure;
    if (object->value.isNull()) return Failure{"The property list holds no value"};
    return object->value;
  }

 private:
  bool readTrailer(std::uint64_t& root);
  const Object* objectAt(std::uint64_t number, std::size_t level);
  bool decode(Object& object, std::size_t at, std::size_t level);
  bool decodeNumber(Object& object, unsigned type, unsigned size, std::size_t at);
  bool decodeText(Object& object, bool isUTF16, std::size_t at, std::size_t length);
  bool decodeArray(Object& object, std::size_t at, std::size_t count, std::size_t level);
  bool decodeDictionary(Object& object, std::size_t at, std::size_t count, std::size_t level);
  // The element that the reference at `at` names, counted into `sum`; nullptr after a failure.
  const Object* element(std::size_t at, std::size_t level, Extent& sum);
  bool readCount(unsigned size, std::size_t& at, std::size_t& count);

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
  bool fail(std::size_t at, std::string_view reason) {
    _failure.message = fmt::format("{} at byte {}", reason, at);
    return false;
  }
  bool failLimit(std::string_view what, std::size_t limit) {
    _failure.message = fmt::format("The property list has more than {} {}", limit, what);
    return false;
  }

  const std::string_view _bytes;
  const PropertyListLimits& _limits;
  std::size_t _offsetSize = 0;
  std::size_t _referenceSize = 0;
  std::size_t _tableOffset = 0;
  std::vector<Object> _objects;
  Failure _failure;
};

bool BinaryReader::readTrailer(std::uint64_t& root) {
  if (!_bytes.starts_with(header)) return fail(0, "Unknown version of the binary form");
  if (_bytes.size() < headerLength + trailerLength)
    return fail(_bytes.size(), "The binary form ends early");
  const std::size_t trailer = _bytes.size() - trailerLength;
  _offsetSize = numberAt(trailer + 6, 1);
  _referenceSize = numberAt(trailer + 7, 1);
  const std::uint64_t count = numberAt(trailer + 8, 8);
  root = numberAt(trailer + 16, 8);
  const std::uint64_t table = numberAt(trailer + 24, 8);
  if (_offsetSize < 1 || _offsetSize > 8 || _referenceSize < 1 || _referenceSize > 8)
    return fail(trailer + 6, "Impossible size of offsets or references");
  if (table < headerLength || table > trailer)
    return fail(trailer + 24, "The offset table lies outside the property list");
  _tableOffset = static_cast<std::size_t>(table);
  if (count == 0 || count > (trailer - _tableOffset) / _offsetSize)
    return fail(trailer + 8, "Impossible number of objects");
  // A dictionary's entry is two objects, but one value.
  if ((count - 1) / 2 >= _limits.values) return failLimit("values", _limits.values);
  _objects.resize(static_cast<std::size_t>(count));
  return true;
}

const Object* BinaryReader::objectAt(std::uint64_t number, std::size_t level) {
  if (number >= _objects.size()) {
    _failure.message = fmt::format("There is no object {} among {}", number, _objects.size());
    return nullptr;
  }
  Object& object = _objects[static_cast<std::size_t>(number)];
  if (object.state == Object::State::open) {
    _failure.message = fmt::format("Object {} contains itself", number);
    return nullptr;
  }
  if (object.state == Object::State::done) return &object;
  const std::size_t entry = _tableOffset + static_cast<std::size_t>(number) * _offsetSize;
  const std::uint64_t at = numberAt(entry, _offsetSize);
  if (at < headerLength || at >= _tableOffset) {
    fail(entry, "Offset outside the property list");
    return nullptr;
  }
  object.state = Object::State::open;
  if (!decode(object, static_cast<std::size_t>(at), level)) return nullptr;
  object.state = Object::State::done;
  return &object;
}

bool BinaryReader::decode(Object& object, std::size_t at, std::size_t level) {
  const auto marker = static_cast<unsigned>(numberAt(at, 1));
  const unsigned type = marker >> 4;
  const unsigned size = marker & 0xF;
  std::size_t content = at + 1;
  switch (type) {
    case 0x0:
      if (size == 8 || size == 9)
        object.value = size == 9;
      else if (size != 0)
        return fail(at, "Unknown object");
      return true;
    case 0x1:
    case 0x2:
    case 0x3: return decodeNumber(object, type, size, at);
    case 0x8:  // UID
      return holds(content, size + 1, 1) || fail(at, "An object ends outside the property list");
    case 0x4:
    case 0x5:
    case 0x6:
    case 0xA:
    case 0xB:
    case 0xC:
    case 0xD: break;
    default: return fail(at, "Unknown object");
  }

  std::size_t count = 0;
  if (!readCount(size, content, count)) return false;
  const std::size_t unit = type == 0x4 || type == 0x5 ? 1
                           : type == 0x6              ? 2
                           : type == 0xD              ? 2 * _referenceSize
                                                      : _referenceSize;
  if (!holds(content, count, unit)) return fail(at, "An object ends outside the property list");
  switch (type) {
    case 0x4:
      object.value = Data{std::string(_bytes.substr(content, count))};
      object.extent.contentBytes = count;
      return true;
    case 0x5:
    case 0x6: return decodeText(object, type == 0x6, content, count);
    case 0xA: return decodeArray(object, content, count, level + 1);
    case 0xD: return decodeDictionary(object, content, count, level + 1);
    default: return true;  // a set
  }
}

bool BinaryReader::decodeNumber(Object& object, unsigned type, unsigned size, std::size_t at) {
  const std::size_t length = std::size_t{1} << size;
  const bool known = type == 0x1 ? size <= 4 : type == 0x2 ? size == 2 || size == 3 : size == 3;
  if (!known) return fail(at, "Unknown object");
  if (!holds(at + 1, length, 1)) return fail(at, "An object ends outside the property list");
  // Of 16 bytes the lower half counts; shorter integers than 8 bytes have no sign.
  const std::uint64_t bits = length == 16 ? numberAt(at + 9, 8) : numberAt(at + 1, length);
  if (type == 0x1)
    object.value = static_cast<std::int64_t>(bits);
  else if (type == 0x3)
    object.value = Date{std::bit_cast<double>(bits) + secondsFrom1970To2001};
  else if (length == 8)
    object.value = std::bit_cast<double>(bits);
  else
    object.value = static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
  return true;
}

bool BinaryReader::decodeText(Object& object, bool isUTF16, std::size_t at, std::size_t length) {
  std::string text;
  if (isUTF16) {
    text.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
      auto character = static_cast<char32_t>(numberAt(at + 2 * i, 2));
      if (character >= 0xD800 && character < 0xE000) {
        const auto low = ++i < length ? static_cast<char32_t>(numberAt(at + 2 * i, 2)) : 0;
        if (character >= 0xDC00 || low < 0xDC00 || low >= 0xE000)
          return fail(at, "Ill-formed UTF-16 in a string");
        character = 0x10000 + ((character & 0x3FF) << 10 | (low & 0x3FF));
      }
      appendUTF8(text, character);
    }
  } else {
    text = _bytes.substr(at, length);
    if (!isValidUTF8(text)) return fail(at, "A string is not UTF-8");
  }
  object.extent.contentBytes = text.size();
  object.value = std::move(text);
  return true;
}

bool BinaryReader::decodeArray(Object& object, std::size_t at, std::size_t count,
                               std::size_t level) {
  if (level > _limits.depth) return failLimit("levels", _limits.depth);
  object.extent.depth = 1;
  Array elements;
  for (std::size_t i = 0; i < count; ++i, at += _referenceSize) {
    const Object* read = element(at, level, object.extent);
    if (read == nullptr) return false;
    if (!read->value.isNull()) elements.push_back(read->value);
  }
  object.value = std::move(elements);
  return true;
}

bool BinaryReader::decodeDictionary(Object& object, std::size_t at, std::size_t count,
                                    std::size_t level) {
  if (level > _limits.depth) return failLimit("levels", _limits.depth);
  object.extent.depth = 1;
  Dictionary entries;
  for (std::size_t i = 0; i < count; ++i, at += _referenceSize) {
    Extent keyExtent;
    const Object* key = element(at, level, keyExtent);
    if (key == nullptr) return false;
    if (key->value.string() == nullptr) return fail(at, "A key is not a string");
    object.extent.contentBytes += key->extent.contentBytes;
    const Object* value = element(at + count * _referenceSize, level, object.extent);
    if (value == nullptr) return false;
    if (!value->value.isNull()) entries.set(*key->value.string(), value->value);
  }
  object.value = std::move(entries);
  return true;
}

const Object* BinaryReader::element(std::size_t at, std::size_t level, Extent& sum) {
  const Object* read = objectAt(numberAt(at, _referenceSize), level);
  if (read == nullptr) return nullptr;
  sum.values += read->extent.values;
  sum.contentBytes += read->extent.contentBytes;
  sum.depth = std::max(sum.depth, read->extent.depth + 1);
  // Each is at most the limit so far, so that the sums cannot overflow.
  if (sum.values > _limits.values && !failLimit("values", _limits.values)) return nullptr;
  if (sum.contentBytes > _limits.bytes && !failLimit("bytes of content", _limits.bytes))
    return nullptr;
  if (level - 1 + sum.depth > _limits.depth && !failLimit("levels", _limits.depth)) return nullptr;
  return read;
}

bool BinaryReader::readCount(unsigned size, std::size_t& at, std::size_t& count) {
  if (size < 0xF) {
    count = size;
    return true;
  }
  const std::uint64_t marker = at < _tableOffset ? numberAt(at, 1) : 0;
  const std::size_t length = std::size_t{1} << (marker & 0xF);
  if (marker >> 4 != 0x1 || length > 8 || !holds(at + 1, length, 1))
    return fail(at, "An object has an impossible size");
  count = numberAt(at + 1, length);
  at += 1 + length;
  return true;
}

}  // namespace

Result<Value> readBinaryPropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  return BinaryReader(bytes, limits).read();
}

}  // namespace corvid
