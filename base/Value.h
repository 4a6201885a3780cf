// The property-list value: what a client sends, a storebag holds, a record carries.
//
// A Value is one of null (nothing), boolean, integer (signed 64 bit), real, string (UTF-8),
// data, date, array or dictionary. Arrays, dictionaries and data inside a Value are shared and
// immutable, so copying a Value is cheap; a Dictionary or Array held directly is copied by value.
//
// Threads: distinct objects are independent; one object is not synchronised.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvid {

class Value;
class Dictionary;
using Array = std::vector<Value>;

// Bytes, in a std::string for cheap hand-over to libraries.
struct Data {
  std::string bytes;
  bool operator==(const Data&) const = default;
};

// A point in time: seconds since 1970-01-01 00:00 UTC, with fraction.
struct Date {
  double secondsSince1970 = 0;
  bool operator==(const Date&) const = default;
};

class Value {
 public:
  enum class Type { null, boolean, integer, real, date, string, data, array, dictionary };

  Value() = default;
  template <std::same_as<bool> B>
  Value(B value) : _storage(value) {}
  template <std::integral I>
  requires(!std::same_as<I, bool>) Value(I value) : _storage(static_cast<std::int64_t>(value)) {}
  Value(double value) : _storage(value) {}
  Value(Date value) : _storage(value) {}
  Value(std::string value) : _storage(std::move(value)) {}
  Value(std::string_view value) : _storage(std::string(value)) {}
  Value(const char* value) : _storage(std::string(value)) {}
  Value(Data value);
  Value(Array value);
  Value(Dictionary value);

  Type type() const { return static_cast<Type>(_storage.index()); }
  bool isNull() const { return type() == Type::null; }

  // The content, or nothing when the value is of another type.
  std::optional<bool> boolean() const { return content<bool>(); }
  std::optional<std::int64_t> integer() const { return content<std::int64_t>(); }
  std::optional<double> real() const { return content<double>(); }
  std::optional<Date> date() const { return content<Date>(); }
  const std::string* string() const { return std::get_if<std::string>(&_storage); }
  const std::string* data() const;
  const Array* array() const;
  const Dictionary* dictionary() const;

  // Deep comparison; dictionaries compare without regard to order. 1 and 1.0 differ.
  bool operator==(const Value& other) const;

 private:
  template <class T>
  std::optional<T> content() const {
    const T* const value = std::get_if<T>(&_storage);
    return value ? std::optional<T>(*value) : std::nullopt;
  }

  std::variant<std::monostate, bool, std::int64_t, double, Date, std::string,
               std::shared_ptr<const Data>, std::shared_ptr<const Array>,
               std::shared_ptr<const Dictionary>>
      _storage;
};

// String keys to values, in order of insertion. Small dictionaries are searched linearly; from
// `indexThreshold` entries on an index by keyed hash is kept, so that no client can make look-ups
// slow.
class Dictionary {
 public:
  struct Entry {
    std::string key;
    Value value;
  };
  static constexpr std::size_t indexThreshold = 48;

  Dictionary() = default;
  Dictionary(std::initializer_list<Entry> entries);

  // The value under `key`, or nullptr. Valid until the next change.
  const Value* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Adds the entry, or replaces the value of an existing key in its place.
  void set(std::string key, Value value);
  // Sets every entry of `other`; its values win over equal keys.
  void addEntriesFrom(const Dictionary& other);
  // Removes the key; false when it was not there.
  bool erase(std::string_view key);
  void reserve(std::size_t count) { _entries.reserve(count); }

  std::size_t size() const { return _entries.size(); }
  bool empty() const { return _entries.empty(); }
  auto begin() const { return _entries.begin(); }
  auto end() const { return _entries.end(); }

  // Gives each entry to `change(const std::string& key, Value& value)`; it returns false to drop
  // the entry.
  template <class F>
  void transformEntries(F&& change) {
    const auto drops = [&](Entry& e) { return !change(std::as_const(e.key), e.value); };
    if (std::erase_if(_entries, drops) > 0) rebuildIndex();
  }

  bool operator==(const Dictionary& other) const;

 private:
  std::size_t position(std::string_view key) const;  // _entries.size() when absent
  void rebuildIndex();
  void insertIntoIndex(std::size_t entry);

  std::vector<Entry> _entries;
  std::uint64_t _marks = 0;  // a bit for each key that is or was there: most misses end at it
  // Open addressing, entry number + 1; empty below the threshold.
  std::vector<std::uint32_t> _index;
};

// How much memory it takes, for bounds on what is held: bytes, estimated from above without the
// allocator's own. Entries, long strings, data, and all that is within; what several values share
// counts for each.
std::size_t footprint(const Dictionary& dictionary);

}  // namespace corvid
