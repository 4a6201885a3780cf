// JSON text that is written part by part.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/Value.h"

namespace corvid {

// Compact text of one object. The caller sees to the order of the parts, commas come by themselves.
// What JSON cannot hold, as writeJSON says, leaves no text.
class JSONText {
 public:
  // `expected` is how long it will be, where that is known.
  explicit JSONText(std::size_t expected = 0) : _least(std::max<std::size_t>(expected + 1, 4096)) {}

  void beginObject() { *push(1) = '{'; }
  void endObject() { end('}'); }
  void beginArray() { *push(1) = '['; }
  void endArray() { end(']'); }

  // In an object; what is added next is its value.
  void key(std::string_view key) { writeText(key, ':'); }
  void add(const Value& value);
  void add(std::string_view key, const Value& value) {
    this->key(key);
    add(value);
  }
  // Each of the dictionary's entries.
  void addEntries(const Dictionary& entries);
  // Entries as they stand between the braces of another text, in which there are some.
  void addWritten(std::string_view entries);

  std::optional<std::string> take();

 private:
  void end(char bracket);
  void writeText(std::string_view text, char after);
  void writeEscaped(std::string_view text);
  template <class Number>
  void writeNumber(Number number);

  // Room for `size` more characters, for the caller to fill, and to give back what it did not.
  char* push(std::size_t size) {
    if (static_cast<std::size_t>(_end - _out) < size) [[unlikely]]
      grow(size);
    return std::exchange(_out, _out + size);
  }
  void pop(std::size_t size) { _out -= size; }
  [[gnu::noinline]] void grow(std::size_t size);

  const std::size_t _least;
  bool _isWritable = true;
  std::string _text;  // behind each part stands a comma, until what it is within ends
  char* _out = _text.data();
  char* _end = _out;
};

}  // namespace corvid
