// The form is described where it is read: BinaryPropertyListReader.cpp.
#include <bit>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "base/KeyedHash.h"
#include "base/Text.h"
#include "platform/data/PropertyListForms.h"

namespace corvid {

namespace {

// 1, 2, 4 or 8: the bytes that such a number needs.
std::size_t sizeOf(std::uint64_t number) {
  return number <= 0xFF ? 1 : number <= 0xFFFF ? 2 : number <= 0xFFFF'FFFF ? 4 : 8;
}

// Numbers the objects first, equal strings as one, because the size of a reference depends on how
// many there are; then writes them.
class BinaryWriter {
 public:
  std::string write(const Value& root) {
    addValue(root);
    _referenceSize = sizeOf(_objects.size() - 1);
    _out = binaryPropertyListMagic;
    _out += "00";
    std::vector<std::uint64_t> offsets;
    offsets.reserve(_objects.size());
    for (const Object& object : _objects) {
      offsets.push_back(_out.size());
      writeObject(object);
    }
    writeTrailer(offsets);
    return std::move(_out);
  }

 private:
  // Of a dictionary the keys' first.
  struct Container {
    bool isDictionary = false;
    std::vector<std::uint32_t> references{};
  };
  using Object = std::variant<const Value*, std::string_view, Container>;

  std::uint32_t addObject(Object object) {
    _objects.push_back(std::move(object));
    return static_cast<std::uint32_t>(_objects.size() - 1);
  }

  std::uint32_t addString(std::string_view text) {
    const auto [known, isNew] =
        _strings.try_emplace(text, static_cast<std::uint32_t>(_objects.size()));
    return isNew ? addObject(text) : known->second;
  }

  std::uint32_t addValue(const Value& value) {
    if (const std::string* text = value.string()) return addString(*text);
    if (const Array* array = value.array()) return addArray(*array);
    if (const Dictionary* dictionary = value.dictionary()) return addDictionary(*dictionary);
    return addObject(&value);
  }

  std::uint32_t addArray(const Array& array) {
    const std::uint32_t number = addObject(Container{});
    Container container;
    container.references.reserve(array.size());
    for (const Value& value : array)
      if (!value.isNull()) container.references.push_back(addValue(value));
    _objects[number] = std::move(container);
    return number;
  }

  std::uint32_t addDictionary(const Dictionary& dictionary) {
    const std::uint32_t number = addObject(Container{});
    Container container{.isDictionary = true};
    container.references.reserve(dictionary.size() * 2);
    for (const auto& [key, value] : dictionary)
      if (!value.isNull()) container.references.push_back(addString(key));
    for (const auto& [key, value] : dictionary)
      if (!value.isNull()) container.references.push_back(addValue(value));
    _objects[number] = std::move(container);
    return number;
  }

  void writeNumber(std::uint64_t number, std::size_t size) {
    for (std::size_t i = size; i-- > 0;) _out.push_back(static_cast<char>(number >> (8 * i)));
  }

  void writeMarker(unsigned type, std::uint64_t size) {
    constexpr unsigned sizeFollows = 0xF;
    writeNumber(type << 4 | (size < sizeFollows ? size : sizeFollows), 1);
    if (size >= sizeFollows) writeInteger(size);
  }

  void writeInteger(std::uint64_t number) {
    const std::size_t size = sizeOf(number);
    writeNumber(0x10u | static_cast<unsigned>(std::countr_zero(size)), 1);
    writeNumber(number, size);
  }

  void writeObject(const Object& object) {
    if (const auto* text = std::get_if<std::string_view>(&object)) return writeString(*text);
    if (const auto* value = std::get_if<const Value*>(&object)) return writeScalar(**value);
    const auto& [isDictionary, references] = std::get<Container>(object);
    writeMarker(isDictionary ? 0xD : 0xA, isDictionary ? references.size() / 2 : references.size());
    for (const std::uint32_t reference : references) writeNumber(reference, _referenceSize);
  }

  void writeString(std::string_view text) {
    if (isASCII(text)) {
      writeMarker(0x5, text.size());
      _out += text;
      return;
    }
    const std::u16string units = utf16(text);
    writeMarker(0x6, units.size());
    for (const char16_t unit : units) writeNumber(unit, 2);
  }

  void writeScalar(const Value& value) {
    if (const auto boolean = value.boolean()) {
      writeNumber(*boolean ? 0x09 : 0x08, 1);
    } else if (const auto integer = value.integer()) {
      writeInteger(static_cast<std::uint64_t>(*integer));
    } else if (const auto real = value.real()) {
      writeNumber(0x23, 1);
      writeNumber(std::bit_cast<std::uint64_t>(*real), 8);
    } else if (const auto date = value.date()) {
      writeNumber(0x33, 1);
      writeNumber(std::bit_cast<std::uint64_t>(date->secondsSince1970 - secondsFrom1970To2001), 8);
    } else if (const std::string* data = value.data()) {
      writeMarker(0x4, data->size());
      _out += *data;
    } else {
      writeNumber(0x00, 1);  // null
    }
  }

  void writeTrailer(const std::vector<std::uint64_t>& offsets) {
    const std::uint64_t table = _out.size();
    const std::size_t offsetSize = sizeOf(table);
    for (const std::uint64_t offset : offsets) writeNumber(offset, offsetSize);
    writeNumber(0, 6);
    writeNumber(offsetSize, 1);
    writeNumber(_referenceSize, 1);
    writeNumber(offsets.size(), 8);
    writeNumber(0, 8);  // the root
    writeNumber(table, 8);
  }

  std::vector<Object> _objects;
  std::unordered_map<std::string_view, std::uint32_t, KeyedHash> _strings;
  std::size_t _referenceSize = 1;
  std::string _out;
};

}  // namespace

std::string writeBinaryPropertyList(const Value& value) { return BinaryWriter().write(value); }

}  // namespace corvid
