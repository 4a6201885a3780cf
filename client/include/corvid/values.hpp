// Values of libcorvid for C++17 and later: dictionaries and arrays over corvid.h, whose contract
// holds here too. Part of corvid.hpp, which includes this.
#ifndef CORVID_VALUES_HPP
#define CORVID_VALUES_HPP

#include <corvid/corvid.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace corvid::client {

// A result code. True where all went well.
class [[nodiscard]] Status {
 public:
  constexpr Status(int code) : _code(code) {}
  constexpr int code() const { return _code; }
  constexpr bool ok() const { return _code == CORVID_OK; }
  constexpr explicit operator bool() const { return ok(); }
  const char* text() const { return corvid_error_text(_code); }
  constexpr bool operator==(Status other) const { return _code == other._code; }
  constexpr bool operator!=(Status other) const { return _code != other._code; }

 private:
  int _code;
};

class ArrayView;
class DictionaryView;

// A value inside an array or a dictionary that somebody else owns; or none.
class ValueView {
 public:
  explicit ValueView(const corvid_value_t* value) : _value(value) {}

  explicit operator bool() const { return _value != nullptr; }
  const corvid_value_t* get() const { return _value; }
  corvid_type_t type() const { return corvid_value_type(_value); }
  // Nothing where the value is of another type.
  std::optional<bool> boolean() const { return read<bool>(corvid_value_get_boolean); }
  std::optional<std::int64_t> integer() const {
    return read<std::int64_t>(corvid_value_get_integer);
  }
  std::optional<double> real() const { return read<double>(corvid_value_get_real); }
  // Seconds since 1970-01-01 00:00 UTC.
  std::optional<double> date() const { return read<double>(corvid_value_get_date); }
  std::optional<std::string_view> string() const {
    std::size_t length = 0;
    const char* text = corvid_value_string(_value, &length);
    return text ? std::optional(std::string_view(text, length)) : std::nullopt;
  }
  std::optional<std::string_view> data() const {
    std::size_t length = 0;
    const auto* bytes = static_cast<const char*>(corvid_value_data(_value, &length));
    return bytes ? std::optional(std::string_view(bytes, length)) : std::nullopt;
  }
  inline ArrayView array() const;
  inline DictionaryView dictionary() const;

 private:
  template <class T>
  std::optional<T> read(int (*function)(const corvid_value_t*, T*)) const {
    T result{};
    return function(_value, &result) == CORVID_OK ? std::optional(result) : std::nullopt;
  }

  const corvid_value_t* _value;
};

// Goes through the elements of a view, from the first to the last.
template <class View, class Element>
class ViewIterator {
 public:
  using value_type = Element;
  using difference_type = std::ptrdiff_t;
  using reference = Element;
  using pointer = void;
  using iterator_category = std::input_iterator_tag;

  ViewIterator(const View& view, std::size_t index) : _view(&view), _index(index) {}
  Element operator*() const { return _view->at(_index); }
  ViewIterator& operator++() {
    ++_index;
    return *this;
  }
  ViewIterator operator++(int) { return ViewIterator(*_view, _index++); }
  bool operator==(const ViewIterator& other) const { return _index == other._index; }
  bool operator!=(const ViewIterator& other) const { return _index != other._index; }

 private:
  const View* _view;
  std::size_t _index;
};

// An array that somebody else owns; or none.
class ArrayView {
 public:
  using Iterator = ViewIterator<ArrayView, ValueView>;

  // `status`: of what was put into it, as Array::status().
  explicit ArrayView(const corvid_array_t* array, Status status = CORVID_OK)
      : _array(array), _status(status) {}
  explicit operator bool() const { return _array != nullptr; }
  const corvid_array_t* get() const { return _array; }
  Status status() const { return _status; }
  std::size_t size() const { return corvid_array_count(_array); }
  ValueView at(std::size_t index) const { return ValueView(corvid_array_get(_array, index)); }
  ValueView operator[](std::size_t index) const { return at(index); }
  Iterator begin() const { return Iterator(*this, 0); }
  Iterator end() const { return Iterator(*this, size()); }

 private:
  const corvid_array_t* _array;
  Status _status;
};

// A dictionary that somebody else owns; or none.
class DictionaryView {
 public:
  struct Entry {
    std::string_view key;
    ValueView value;
  };
  using Iterator = ViewIterator<DictionaryView, Entry>;

  // `status`: of what was put into it, as Dictionary::status().
  explicit DictionaryView(const corvid_dictionary_t* dictionary, Status status = CORVID_OK)
      : _dictionary(dictionary), _status(status) {}
  explicit operator bool() const { return _dictionary != nullptr; }
  const corvid_dictionary_t* get() const { return _dictionary; }
  Status status() const { return _status; }
  std::size_t size() const { return corvid_dictionary_count(_dictionary); }
  ValueView operator[](const char* key) const {
    return ValueView(corvid_dictionary_get(_dictionary, key));
  }
  Entry entry(std::size_t index) const {
    const char* key = nullptr;
    std::size_t length = 0;
    const ValueView value(corvid_dictionary_entry(_dictionary, index, &key, &length));
    return {std::string_view(key, length), value};
  }
  Entry at(std::size_t index) const { return entry(index); }
  Iterator begin() const { return Iterator(*this, 0); }
  Iterator end() const { return Iterator(*this, size()); }

 private:
  const corvid_dictionary_t* _dictionary;
  Status _status;
};

ArrayView ValueView::array() const { return ArrayView(corvid_value_array(_value)); }
DictionaryView ValueView::dictionary() const {
  return DictionaryView(corvid_value_dictionary(_value));
}

// Kinds of value that C++ types do not tell apart.
struct Data {
  std::string_view bytes;
};
struct Date {
  double secondsSince1970;
};

// What can be put into a dictionary or an array: null, bool, every integral and floating type,
// texts of every kind, Data, Date, arrays, dictionaries and values. Borrows; for arguments only.
class Item {
 public:
  Item(std::nullptr_t) : _kind(CORVID_TYPE_NULL) {}
  template <class T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
  Item(T value) : _kind(CORVID_TYPE_BOOLEAN), _integer(value) {}
  // One that does not fit into 64 bits with a sign is CORVID_ERROR_INVALID_ARGUMENT.
  template <class T, std::enable_if_t<(std::is_integral_v<T> && !std::is_same_v<T, bool>) ||
                                          (std::is_enum_v<T> && std::is_convertible_v<T, int>),
                                      int> = 0>
  Item(T value) : _kind(CORVID_TYPE_INTEGER), _integer(static_cast<std::int64_t>(value)) {
    if (value > T{} && static_cast<std::uint64_t>(value) > mostInteger) fail();
  }
  template <class T, std::enable_if_t<std::is_floating_point_v<T>, int> = 0>
  Item(T value) : _kind(CORVID_TYPE_REAL), _real(static_cast<double>(value)) {}
  Item(Date value) : _kind(CORVID_TYPE_DATE), _real(value.secondsSince1970) {}
  Item(Data value) : _kind(CORVID_TYPE_DATA), _bytes(value.bytes) {}
  Item(const char* text) : _kind(CORVID_TYPE_STRING) {
    if (text == nullptr)
      fail();
    else
      _bytes = text;
  }
  template <class T, std::enable_if_t<std::is_convertible_v<const T&, std::string_view> &&
                                          !std::is_convertible_v<const T&, const char*>,
                                      int> = 0>
  Item(const T& text) : _kind(CORVID_TYPE_STRING), _bytes(text) {}
#ifdef __cpp_char8_t
  Item(const char8_t* text) : Item(reinterpret_cast<const char*>(text)) {}
  Item(std::u8string_view text)
      : Item(std::string_view(reinterpret_cast<const char*>(text.data()), text.size())) {}
  Item(const std::u8string& text) : Item(std::u8string_view(text)) {}
#endif
  Item(ArrayView value) : _kind(CORVID_TYPE_ARRAY), _object(value.get()), _status(value.status()) {}
  Item(DictionaryView value)
      : _kind(CORVID_TYPE_DICTIONARY), _object(value.get()), _status(value.status()) {}
  Item(ValueView value) : _object(value.get()), _isValue(true) {}
  // Arrays and dictionaries.
  template <class T, class View = decltype(std::declval<const T&>().view()),
            std::enable_if_t<
                std::is_same_v<View, ArrayView> || std::is_same_v<View, DictionaryView>, int> = 0>
  Item(const T& container) : Item(container.view()) {}

  Status setIn(corvid_dictionary_t* dictionary, const char* key) const {
    if (!_status) return _status;
    if (_isValue)
      return corvid_dictionary_set_value(dictionary, key,
                                         static_cast<const corvid_value_t*>(_object));
    switch (_kind) {
      case CORVID_TYPE_NULL: return corvid_dictionary_set_null(dictionary, key);
      case CORVID_TYPE_BOOLEAN:
        return corvid_dictionary_set_boolean(dictionary, key, _integer != 0);
      case CORVID_TYPE_INTEGER: return corvid_dictionary_set_integer(dictionary, key, _integer);
      case CORVID_TYPE_REAL: return corvid_dictionary_set_real(dictionary, key, _real);
      case CORVID_TYPE_DATE: return corvid_dictionary_set_date(dictionary, key, _real);
      case CORVID_TYPE_STRING:
        return corvid_dictionary_set_text(dictionary, key, _bytes.data(), _bytes.size());
      case CORVID_TYPE_DATA:
        return corvid_dictionary_set_data(dictionary, key, _bytes.data(), _bytes.size());
      case CORVID_TYPE_ARRAY:
        return corvid_dictionary_set_array(dictionary, key,
                                           static_cast<const corvid_array_t*>(_object));
      case CORVID_TYPE_DICTIONARY:
        return corvid_dictionary_set_dictionary(dictionary, key,
                                                static_cast<const corvid_dictionary_t*>(_object));
    }
    return CORVID_ERROR_INVALID_ARGUMENT;
  }

  Status appendTo(corvid_array_t* array) const {
    if (!_status) return _status;
    if (_isValue)
      return corvid_array_append_value(array, static_cast<const corvid_value_t*>(_object));
    switch (_kind) {
      case CORVID_TYPE_NULL: return corvid_array_append_null(array);
      case CORVID_TYPE_BOOLEAN: return corvid_array_append_boolean(array, _integer != 0);
      case CORVID_TYPE_INTEGER: return corvid_array_append_integer(array, _integer);
      case CORVID_TYPE_REAL: return corvid_array_append_real(array, _real);
      case CORVID_TYPE_DATE: return corvid_array_append_date(array, _real);
      case CORVID_TYPE_STRING: return corvid_array_append_text(array, _bytes.data(), _bytes.size());
      case CORVID_TYPE_DATA: return corvid_array_append_data(array, _bytes.data(), _bytes.size());
      case CORVID_TYPE_ARRAY:
        return corvid_array_append_array(array, static_cast<const corvid_array_t*>(_object));
      case CORVID_TYPE_DICTIONARY:
        return corvid_array_append_dictionary(array,
                                              static_cast<const corvid_dictionary_t*>(_object));
    }
    return CORVID_ERROR_INVALID_ARGUMENT;
  }

 private:
  static constexpr std::uint64_t mostInteger =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  void fail() { _status = CORVID_ERROR_INVALID_ARGUMENT; }

  corvid_type_t _kind = CORVID_TYPE_NULL;
  std::int64_t _integer = 0;
  double _real = 0;
  std::string_view _bytes{};
  const void* _object = nullptr;
  bool _isValue = false;
  Status _status = CORVID_OK;
};

// Owners of objects of the C interface.
template <class T, void (*destroy)(T*)>
struct Destroy {
  void operator()(T* object) const { destroy(object); }
};
template <class T, void (*destroy)(T*)>
using Owner = std::unique_ptr<T, Destroy<T, destroy>>;

// An array. What cannot be appended leaves it as it was, and is remembered: status() is the first
// failure, and a session refuses an array with one, with that code.
class Array {
 public:
  // What became of an append; the next may follow at once.
  class Appended : public Status {
   public:
    Appended append(const Item& item) const { return _array.append(item); }

   private:
    friend class Array;
    Appended(Status status, Array& array) : Status(status), _array(array) {}
    Array& _array;
  };

  Array() : Array(corvid_array_create()) {}
  // In braces always the elements: Array{other} has one, Array(other) is a copy.
  Array(std::initializer_list<Item> items) : Array() {
    for (const Item& item : items) append(item);
  }
  explicit Array(ArrayView other)
      : Array(other ? corvid_array_copy(other.get()) : corvid_array_create()) {
    if (_status) _status = other.status();
  }
  Array(const Array& other) : Array(other.view()) {}
  Array(Array&&) noexcept = default;
  Array& operator=(Array other) noexcept {
    _array.swap(other._array);
    _status = other._status;
    return *this;
  }

  ArrayView view() const { return ArrayView(_array.get(), _status); }
  operator ArrayView() const { return view(); }
  const corvid_array_t* get() const { return _array.get(); }
  Status status() const { return _status; }
  std::size_t size() const { return corvid_array_count(_array.get()); }
  ValueView at(std::size_t index) const { return view().at(index); }
  ValueView operator[](std::size_t index) const { return at(index); }
  ViewIterator<Array, ValueView> begin() const { return {*this, 0}; }
  ViewIterator<Array, ValueView> end() const { return {*this, size()}; }

  Appended append(const Item& item) { return Appended(note(item.appendTo(_array.get())), *this); }

 private:
  explicit Array(corvid_array_t* array) : _array(array) {
    if (!_array) _status = CORVID_ERROR_NO_MEMORY;
  }
  Status note(Status status) {
    if (_status) _status = status;
    return status;
  }
  Owner<corvid_array_t, corvid_array_destroy> _array;
  Status _status = CORVID_OK;
};

// A key: ends with a zero byte. Borrows; for arguments only.
class Key {
 public:
  Key(const char* text) : _text(text) {}
  Key(const std::string& text) : _text(text.c_str()) {}
  const char* text() const { return _text; }

 private:
  const char* _text;
};

// A dictionary, as Dictionary{{"colour", "blue"}, {"count", 3}}. What cannot be set leaves it as it
// was, and is remembered: status() is the first failure, and a session refuses a dictionary with
// one, with that code.
class Dictionary {
 public:
  // What became of a set; the next may follow at once.
  class Set : public Status {
   public:
    Set set(Key key, const Item& item) const { return _dictionary.set(key, item); }

   private:
    friend class Dictionary;
    Set(Status status, Dictionary& dictionary) : Status(status), _dictionary(dictionary) {}
    Dictionary& _dictionary;
  };
  struct Pair {
    Key key;
    Item item;
  };

  Dictionary() : Dictionary(corvid_dictionary_create()) {}
  Dictionary(std::initializer_list<Pair> pairs) : Dictionary() {
    for (const Pair& pair : pairs) set(pair.key, pair.item);
  }
  explicit Dictionary(DictionaryView other)
      : Dictionary(other ? corvid_dictionary_copy(other.get()) : corvid_dictionary_create()) {
    if (_status) _status = other.status();
  }
  Dictionary(const Dictionary& other) : Dictionary(other.view()) {}
  Dictionary(Dictionary&&) noexcept = default;
  Dictionary& operator=(Dictionary other) noexcept {
    _dictionary.swap(other._dictionary);
    _status = other._status;
    return *this;
  }

  DictionaryView view() const { return DictionaryView(_dictionary.get(), _status); }
  operator DictionaryView() const { return view(); }
  const corvid_dictionary_t* get() const { return _dictionary.get(); }
  Status status() const { return _status; }
  std::size_t size() const { return corvid_dictionary_count(_dictionary.get()); }
  ValueView operator[](const char* key) const { return view()[key]; }
  DictionaryView::Entry at(std::size_t index) const { return view().entry(index); }
  ViewIterator<Dictionary, DictionaryView::Entry> begin() const { return {*this, 0}; }
  ViewIterator<Dictionary, DictionaryView::Entry> end() const { return {*this, size()}; }

  Set set(Key key, const Item& item) {
    return Set(note(item.setIn(_dictionary.get(), key.text())), *this);
  }
  void remove(const char* key) { corvid_dictionary_remove(_dictionary.get(), key); }

 private:
  explicit Dictionary(corvid_dictionary_t* dictionary) : _dictionary(dictionary) {
    if (!_dictionary) _status = CORVID_ERROR_NO_MEMORY;
  }
  Status note(Status status) {
    if (_status) _status = status;
    return status;
  }
  Owner<corvid_dictionary_t, corvid_dictionary_destroy> _dictionary;
  Status _status = CORVID_OK;
};

}  // namespace corvid::client

#endif  // CORVID_VALUES_HPP
