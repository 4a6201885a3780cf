#include "platform/data/JSONText.h"

#include <fmt/compile.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "base/Text.h"
#include "platform/data/JSONWords.h"

namespace corvid {

namespace {

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
  return isPlain(marks);
}

char* formatted(char* out, std::int64_t number) {
  return std::to_chars(out, out + numberRoom, number).ptr;
}

// The shortest text that reads back the same. What would read as an integer gets a fraction: a real
// stays one.
char* formatted(char* out, double number) {
  char* end = fmt::format_to(out, FMT_COMPILE("{}"), number);
  if (std::fabs(number) < 1e16 && number == std::trunc(number)) *end++ = '.', *end++ = '0';
  return end;
}

// What stands for the character behind a backslash: 'u' where its number follows, 0 where it stands
// for itself.
char escapeOf(char c) {
  switch (c) {
    case '"':
    case '\\': return c;
    case '\b': return 'b';
    case '\f': return 'f';
    case '\n': return 'n';
    case '\r': return 'r';
    case '\t': return 't';
    default: return static_cast<unsigned char>(c) < 0x20 ? 'u' : '\0';
  }
}

}  // namespace

void JSONText::grow(std::size_t size) {
  const auto used = static_cast<std::size_t>(_out - _text.data());
  _text.resize(std::max(_least, (used + size) * 2));
  _out = _text.data() + used;
  _end = _text.data() + _text.size();
}

std::optional<std::string> JSONText::take() {
  if (!_isWritable) return std::nullopt;
  pop(1);  // the comma
  _text.resize(static_cast<std::size_t>(_out - _text.data()));
  return std::move(_text);
}

void JSONText::end(char bracket) {
  if (_out[-1] == ',') pop(1);
  char* const out = push(2);
  out[0] = bracket, out[1] = ',';
}

void JSONText::addEntries(const Dictionary& entries) {
  for (const auto& [name, value] : entries) add(name, value);
}

void JSONText::addWritten(std::string_view entries) {
  char* const out = push(entries.size() + 1);
  std::memcpy(out, entries.data(), entries.size());
  out[entries.size()] = ',';
}

void JSONText::add(const Value& value) {
  switch (value.type()) {
    case Value::Type::null: return addWritten("null");
    case Value::Type::boolean: return addWritten(*value.boolean() ? "true" : "false");
    case Value::Type::integer: return writeNumber(*value.integer());
    case Value::Type::real:
      _isWritable = _isWritable && std::isfinite(*value.real());
      return writeNumber(*value.real());
    case Value::Type::string: return writeText(*value.string(), ',');
    case Value::Type::array:
      beginArray();
      for (const Value& element : *value.array()) add(element);
      return endArray();
    case Value::Type::dictionary:
      beginObject();
      addEntries(*value.dictionary());
      return endObject();
    case Value::Type::data:
    case Value::Type::date: _isWritable = false;
  }
}

template <class Number>
void JSONText::writeNumber(Number number) {
  char* const out = push(numberRoom + 1);
  char* const end = formatted(out, number);
  *end = ',';
  pop(static_cast<std::size_t>(out + numberRoom - end));
}

void JSONText::writeText(std::string_view text, char after) {
  char* const out = push(text.size() + 3);
  out[0] = out[text.size() + 1] = '"';
  out[text.size() + 2] = after;
  if (copyPlain(text, out + 1)) return;
  pop(text.size() + 3);
  writeEscaped(text);
  *push(1) = after;
}

void JSONText::writeEscaped(std::string_view text) {
  _isWritable = _isWritable && isValidUTF8(text);
  *push(1) = '"';
  for (const char c : text) {
    const char escape = escapeOf(c);
    if (escape == 'u')
      fmt::format_to(push(6), "\\u{:04X}", static_cast<unsigned>(c));
    else if (escape != 0)
      *push(1) = '\\', *push(1) = escape;
    else
      *push(1) = c;
  }
  *push(1) = '"';
}

}  // namespace corvid
