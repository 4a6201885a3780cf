#include "base/Value.h"

#include <bit>
#include <utility>

#include "base/KeyedHash.h"

namespace corvid {

Value::Value(Data value) : _storage(std::make_shared<const Data>(std::move(value))) {}
Value::Value(Array value) : _storage(std::make_shared<const Array>(std::move(value))) {}
Value::Value(Dictionary value) : _storage(std::make_shared<const Dictionary>(std::move(value))) {}

namespace {

template <class T, class Variant>
const T* sharedContentOf(const Variant& storage) {
  const auto* shared = std::get_if<std::shared_ptr<const T>>(&storage);
  return shared ? shared->get() : nullptr;
}

}  // namespace

const std::string* Value::data() const {
  const Data* content = sharedContentOf<Data>(_storage);
  return content ? &content->bytes : nullptr;
}
const Array* Value::array() const { return sharedContentOf<Array>(_storage); }
const Dictionary* Value::dictionary() const { return sharedContentOf<Dictionary>(_storage); }

bool Value::operator==(const Value& other) const {
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::data: return *data() == *other.data();
    case Type::array: return *array() == *other.array();
    case Type::dictionary: return *dictionary() == *other.dictionary();
    default: return _storage == other._storage;
  }
}

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  reserve(entries.size());
  for (const Entry& entry : entries) set(entry.key, entry.value);
}

namespace {

// One of 64 bits: short keys differ in length, middle and end most of all.
std::uint64_t markOf(std::string_view key) {
  if (key.empty()) return 1;
  const std::size_t middle = static_cast<unsigned char>(key[key.size() / 2]);
  const std::size_t end = static_cast<unsigned char>(key.back());
  return std::uint64_t{1} << ((key.size() * 5 + middle * 11 + end * 3) % 64);
}

}  // namespace

std::size_t Dictionary::position(std::string_view key) const {
  if ((_marks & markOf(key)) == 0) return _entries.size();
  if (_index.empty()) {
    for (std::size_t i = 0; i < _entries.size(); ++i)
      if (_entries[i].key == key) return i;
    return _entries.size();
  }
  const std::size_t mask = _index.size() - 1;
  for (std::size_t slot = KeyedHash{}(key)&mask;; slot = (slot + 1) & mask) {
    if (_index[slot] == 0) return _entries.size();
    if (_entries[_index[slot] - 1].key == key) return _index[slot] - 1;
  }
}

const Value* Dictionary::find(std::string_view key) const {
  const std::size_t at = position(key);
  return at < _entries.size() ? &_entries[at].value : nullptr;
}

void Dictionary::set(std::string key, Value value) {
  const std::size_t at = position(key);
  if (at < _entries.size()) {
    _entries[at].value = std::move(value);
    return;
  }
  _marks |= markOf(key);
  _entries.push_back({std::move(key), std::move(value)});
  if (_entries.size() < indexThreshold) return;
  if (_index.size() < _entries.size() * 2)
    rebuildIndex();
  else
    insertIntoIndex(_entries.size() - 1);
}

void Dictionary::addEntriesFrom(const Dictionary& other) {
  if (empty()) {  // keeps what was reserved, and finds no key twice
    _entries.assign(other._entries.begin(), other._entries.end());
    _marks = other._marks;
    _index = other._index;
    return;
  }
  reserve(size() + other.size());
  for (const Entry& entry : other) set(entry.key, entry.value);
}

bool Dictionary::erase(std::string_view key) {
  const std::size_t at = position(key);
  if (at == _entries.size()) return false;
  _entries.erase(_entries.begin() + static_cast<std::ptrdiff_t>(at));
  rebuildIndex();
  return true;
}

void Dictionary::insertIntoIndex(std::size_t entry) {
  const std::size_t mask = _index.size() - 1;
  std::size_t slot = KeyedHash{}(_entries[entry].key) & mask;
  while (_index[slot] != 0) slot = (slot + 1) & mask;
  _index[slot] = static_cast<std::uint32_t>(entry + 1);
}

void Dictionary::rebuildIndex() {
  _index.clear();
  if (_entries.size() < indexThreshold) return;
  _index.resize(std::bit_ceil(_entries.size() * 4));
  for (std::size_t i = 0; i < _entries.size(); ++i) insertIntoIndex(i);
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  for (const Entry& entry : _entries) {
    const Value* match = other.find(entry.key);
    if (match == nullptr || !(*match == entry.value)) return false;
  }
  return true;
}

namespace {

// Besides the Value object itself.
std::size_t beyondObject(const Value& value) {
  switch (value.type()) {
    case Value::Type::string: return value.string()->capacity();
    case Value::Type::data: return sizeof(Data) + value.data()->size();
    case Value::Type::array: {
      std::size_t bytes = sizeof(Array);
      for (const Value& element : *value.array()) bytes += sizeof(Value) + beyondObject(element);
      return bytes;
    }
    case Value::Type::dictionary: return sizeof(Dictionary) + footprint(*value.dictionary());
    default: return 0;
  }
}

}  // namespace

std::size_t footprint(const Dictionary& dictionary) {
  std::size_t bytes = 0;
  for (const Dictionary::Entry& entry : dictionary)
    bytes += sizeof(Dictionary::Entry) + entry.key.capacity() + beyondObject(entry.value);
  return bytes;
}

}  // namespace corvid
