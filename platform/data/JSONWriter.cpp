#include <fmt/format.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "base/Text.h"
#include "base/TextWords.h"
#include "platform/data/JSON.h"

namespace corvid {

namespace {

constexpr std::size_t numberRoom = 32;  // enough for any number

// The output stream of the library's writers: a string that is returned without another copy.
class TextStream {
 public:
  using Ch = char;

  explicit TextStream(std::size_t expected) : _least(std::max<std::size_t>(expected, 4096)) {}

  void Put(char c) { *Push(1) = c; }
  void Flush() {}
  // Room for `size` more characters, for the caller to fill.
  char* Push(std::size_t size) {
    if (static_cast<std::size_t>(_end - _out) < size) [[unlikely]]
      grow(size);
    return std::exchange(_out, _out + size);
  }
  void Pop(std::size_t size) { _out -= size; }

  std::string take() {
    _text.resize(used());
    return std::move(_text);
  }

 private:
  std::size_t used() const { return static_cast<std::size_t>(_out - _text.data()); }
  [[gnu::noinline]] void grow(std::size_t size) {
    const std::size_t usedBefore = used();
    _text.resize(std::max(_least, (usedBefore + size) * 2));
    _out = _text.data() + usedBefore;
    _end = _text.data() + _text.size();
  }

  const std::size_t _least;
  std::string _text;
  char* _out = _text.data();
  char* _end = _out;
};

// Marks, in the high bits, whether some byte is below `limit` (at most 128) or above 127.
constexpr std::uint64_t marksBelow(std::uint64_t bytes, std::uint8_t limit) {
  return (bytes - everyByte(limit)) | bytes;
}

// Marks, in the high bits, whether some byte is no ASCII or is escaped in JSON.
constexpr std::uint64_t marksSpecial(std::uint64_t bytes) {
  return marksBelow(bytes, 0x20) | marksBelow(bytes ^ everyByte('"'), 1) |
         marksBelow(bytes ^ everyByte('\\'), 1);
}

// Copies one Word and returns it.
template <class Word>
std::uint64_t copyWord(const char* from, char* to) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  std::memcpy(to, &word, sizeof word);
  return word;
}

// Copies the text, and says whether it is ASCII throughout and free of what JSON escapes. Words at
// the end overlap those before: short texts are the rule, and a loop over their bytes the cost.
bool copyPlain(std::string_view text, char* to) {
  const char* from = text.data();
  const std::size_t size = text.size();
  std::uint64_t marks = 0;
  if (size >= 8) {
    for (std::size_t at = 0; at + 8 < size; at += 8)
      marks |= marksSpecial(copyWord<std::uint64_t>(from + at, to + at));
    marks |= marksSpecial(copyWord<std::uint64_t>(from + size - 8, to + size - 8));
  } else if (size >= 4) {
    const std::uint64_t first = copyWord<std::uint32_t>(from, to);
    const std::uint64_t last = copyWord<std::uint32_t>(from + size - 4, to + size - 4);
    marks = marksSpecial(first | last << 32);
  } else {
    for (std::size_t at = 0; at < size; ++at)
      marks |= marksSpecial(copyWord<std::uint8_t>(from + at, to + at) * everyByte(1));
  }
  return (marks & everyByte(0x80)) == 0;
}

// Adds to a writer of the library what it lacks: shortest numbers, and a short way for the plain
// texts that nearly all keys and values are.
class ValueWriter final : public rapidjson::Writer<TextStream> {
 public:
  explicit ValueWriter(TextStream& stream) : Writer(stream) {}

  bool write(const Dictionary& dictionary) {
    StartObject();
    for (const auto& [key, value] : dictionary)
      if (!writeString(key) || !write(value)) return false;
    return EndObject();
  }

 private:
  static constexpr std::size_t room = numberRoom;

  bool write(const Value& value) {
    switch (value.type()) {
      case Value::Type::null: return Null();
      case Value::Type::boolean: return Bool(*value.boolean());
      case Value::Type::integer: return writeInteger(*value.integer());
      case Value::Type::real: return writeReal(*value.real());
      case Value::Type::string: return writeString(*value.string());
      case Value::Type::array: return write(*value.array());
      case Value::Type::dictionary: return write(*value.dictionary());
      case Value::Type::data:
      case Value::Type::date: return false;
    }
    return false;
  }

  bool write(const Array& array) {
    StartArray();
    for (const Value& value : array)
      if (!write(value)) return false;
    return EndArray();
  }

  bool writeString(std::string_view text) {
    Prefix(rapidjson::kStringType);
    char* out = os_->Push(text.size() + 2);
    out[0] = out[text.size() + 1] = '"';
    if (copyPlain(text, out + 1)) return true;
    os_->Pop(text.size() + 2);
    return isValidUTF8(text) &&
           WriteString(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  }

  bool writeInteger(std::int64_t number) {
    Prefix(rapidjson::kNumberType);
    char* out = os_->Push(room);
    const char* end = rapidjson::internal::i64toa(number, out);
    os_->Pop(room - static_cast<std::size_t>(end - out));
    return true;
  }

  bool writeReal(double number) {
    if (!std::isfinite(number)) return false;
    Prefix(rapidjson::kNumberType);
    char* out = os_->Push(room);
    char* end = fmt::format_to(out, "{}", number);
    // What would read as an integer gets a fraction: a real stays one.
    if (std::fabs(number) < 1e16 && number == std::trunc(number)) *end++ = '.', *end++ = '0';
    os_->Pop(room - static_cast<std::size_t>(end - out));
    return true;
  }
};

std::size_t mostTextBytes(std::string_view text) {
  std::uint64_t marks = 0;
  forEachWord(text, [&](std::uint64_t word) { marks |= marksSpecial(word); });
  if ((marks & everyByte(0x80)) == 0) return text.size() + 2;
  std::size_t controls = 0;
  std::size_t escaped = 0;
  for (const char c : text) {
    controls += static_cast<unsigned char>(c) < 0x20;
    escaped += c == '"' || c == '\\';
  }
  return text.size() + 5 * controls + escaped + 2;
}

std::size_t mostBytes(const Value& value) {
  switch (value.type()) {
    case Value::Type::string: return mostTextBytes(*value.string());
    case Value::Type::array: {
      std::size_t bytes = 2;
      for (const Value& element : *value.array()) bytes += mostBytes(element) + 1;
      return bytes;
    }
    case Value::Type::dictionary: return mostJSONBytes(*value.dictionary());
    default: return numberRoom;
  }
}

}  // namespace

std::size_t mostJSONBytes(const Dictionary& object) {
  std::size_t bytes = 2;
  for (const auto& [key, value] : object) bytes += mostTextBytes(key) + mostBytes(value) + 2;
  return bytes;
}

std::optional<std::string> writeJSON(const Dictionary& object, std::size_t expected) {
  TextStream stream(expected);
  if (!ValueWriter(stream).write(object)) return std::nullopt;
  return stream.take();
}

std::string indentedJSON(std::string_view compact) {
  constexpr std::size_t step = 4;
  std::string text;
  text.reserve(compact.size() + compact.size() / 2);
  std::size_t indent = 0;
  const auto newLine = [&] { text.append(1, '\n').append(indent, ' '); };
  for (std::size_t at = 0; at < compact.size(); ++at) {
    const char c = compact[at];
    if (c == '"') {
      std::size_t end = at + 1;
      while (compact[end] != '"') end += compact[end] == '\\' ? 2 : 1;
      text.append(compact.substr(at, end + 1 - at));
      at = end;
    } else if (c == '{' || c == '[') {
      text.push_back(c);
      if (compact[at + 1] == c + 2) {  // the closing one: there is nothing inside
        text.push_back(compact[++at]);
        continue;
      }
      indent += step;
      newLine();
    } else if (c == '}' || c == ']') {
      indent -= step;
      newLine();
      text.push_back(c);
    } else {
      text.push_back(c);
      if (c == ',') newLine();
      if (c == ':') text.push_back(' ');
    }
  }
  return text;
}

}  // namespace corvid
