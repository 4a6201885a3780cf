#include "gateway/body/JSONCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "base/Reading.h"
#include "base/Text.h"
#include "base/TextWords.h"

namespace corvid::fleet {

namespace {

constexpr std::string_view eventsKey = "events";

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Whether a byte of a string stands for itself, needing no further look.
bool isPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
}

// Where the bytes that stand for themselves end.
std::size_t endOfPlain(std::string_view text, std::size_t at) {
  if constexpr (std::endian::native == std::endian::little) {
    for (; at + 8 <= text.size(); at += 8) {
      std::uint64_t word;
      std::memcpy(&word, text.data() + at, 8);
      // The top bit of each byte that is looked for. A borrow marks others too, but only behind
      // one.
      const std::uint64_t found =
          (word | (word - everyByte(0x20)) | ((word ^ everyByte('"')) - everyByte(1)) |
           ((word ^ everyByte('\\')) - everyByte(1))) &
          everyByte(0x80);
      if (found != 0) return at + static_cast<std::size_t>(std::countr_zero(found)) / 8;
    }
  }
  while (at < text.size() && isPlain(text[at])) ++at;
  return at;
}

// Whether a byte may stand in a number.
bool isOfNumber(char c) {
  return isDigit(c) || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E';
}

// The whole of it by the grammar of JSON's numbers. `exponent`: where its "e" stands, if it has
// one.
bool isNumber(std::string_view text, std::optional<std::size_t>& exponent) {
  std::size_t at = text.starts_with('-') ? 1 : 0;
  const auto digits = [&] {
    const std::size_t from = at;
    while (at < text.size() && isDigit(text[at])) ++at;
    return at - from;
  };
  const bool startsWithZero = at < text.size() && text[at] == '0';
  const std::size_t whole = digits();
  if (whole == 0 || (startsWithZero && whole > 1)) return false;
  if (at < text.size() && text[at] == '.') {
    ++at;
    if (digits() == 0) return false;
  }
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    exponent = at++;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
    if (digits() == 0) return false;
  }
  return at == text.size();
}

// Of a number by the grammar.
bool isInRange(std::string_view text, std::optional<std::size_t> exponent) {
  constexpr std::size_t digitsOfAnyDouble = 300;
  constexpr int mostExponent = std::numeric_limits<double>::max_exponent10;
  if (!exponent && text.size() <= digitsOfAnyDouble) return true;
  if (exponent) {
    const std::size_t digits = text.find_first_of("0123456789", *exponent);
    if (text.size() - digits > limits::exponentDigits) return false;
    // Many readers look at the exponent first: 0e309 is too large for them, which is 0 for others.
    const bool isLarge = numberFrom<int>(text.substr(digits)).value_or(0) > mostExponent;
    const bool isOfZero = text.substr(0, *exponent).find_first_of("123456789") == text.npos;
    if (isOfZero && isLarge && text[digits - 1] != '-') return false;
  }
  return numberFrom<double>(text).has_value();
}

}  // namespace

std::optional<Refusal> JSONCheck::advance(std::string_view text, bool isWhole) {
  _text = text;
  _isWhole = isWhole;
  for (;;) {
    if (!_isInString)
      while (_at < _text.size() && isBlank(_text[_at])) ++_at;
    if (_at == _text.size()) {
      if (!_isWhole) return std::nullopt;
      if (_expected != Expected::nothing) refuse(Rule::noJSON);
      return _refusal;
    }
    switch (_isInString ? string() : step()) {
      case Step::done: break;
      case Step::lacking: return std::nullopt;
      case Step::refused: return _refusal;
    }
  }
}

JSONCheck::Step JSONCheck::step() {
  const char c = _text[_at];
  switch (_expected) {
    case Expected::root: return root();
    case Expected::valueOrEnd:
      if (c == ']') return close();
      return value();
    case Expected::value: return value();
    case Expected::keyOrEnd:
      if (c == '}') return close();
      return keyStart();
    case Expected::key: return keyStart();
    case Expected::colon:
      if (c != ':') return refuse(Rule::noJSON);
      return stepOver(':', Expected::value);
    case Expected::commaOrEnd:
      if (c == (isInnermostObject() ? '}' : ']')) return close();
      if (c != ',') return refuse(Rule::noJSON);
      return stepOverComma();
    case Expected::nothing: return refuse(Rule::trailing);
  }
  return refuse(Rule::noJSON);
}

JSONCheck::Step JSONCheck::root() {
  const char c = _text[_at];
  if (c == '{') return open(true);
  const bool beginsValue =
      std::string_view("[\"tfn-").find(c) != std::string_view::npos || isDigit(c);
  return refuse(beginsValue ? Rule::noObject : Rule::noJSON);
}

JSONCheck::Step JSONCheck::value() {
  const char c = _text[_at];
  if (_valueIsEvents && c != '[') return refuse(Rule::eventsNoArray);
  if (_isInEvents && _depth == 2) {
    if (c != '{') return refuse(Rule::eventNoObject);
    if (++_events > limits::events) return refuse(Rule::tooManyEvents);
  }
  switch (c) {
    case '{': return open(true);
    case '[': return open(false);
    case '"':
      _isInString = true;
      _isKey = _hasEscapes = false;
      _stringStart = ++_at;
      return string();
    case 't':
    case 'f':
    case 'n': return literal();
    default: return number();
  }
}

JSONCheck::Step JSONCheck::keyStart() {
  if (_text[_at] != '"') return refuse(Rule::noJSON);
  if (_keys.membersOfInnermost() == limits::members) return refuse(Rule::members);
  _isInString = _isKey = true;
  _hasEscapes = false;
  _stringStart = ++_at;
  return string();
}

JSONCheck::Step JSONCheck::string() {
  for (;;) {
    _at = endOfPlain(_text, _at);
    if (_at == _text.size()) return lacking();
    const char c = _text[_at];
    if (c == '"') return stringEnd();
    const Step taken = c == '\\' ? escape() : character();
    if (taken != Step::done) return taken;
  }
}

JSONCheck::Step JSONCheck::escape() {
  _hasEscapes = true;
  if (_at + 1 >= _text.size()) return lacking();
  const char kind = _text[_at + 1];
  if (kind != 'u') {
    if (std::string_view("\"\\/bfnrt").find(kind) == std::string_view::npos)
      return refuse(Rule::noJSON);
    _at += 2;
    return Step::done;
  }
  const auto unit = [&](std::size_t from) {
    return numberFrom<std::uint16_t>(_text.substr(from, 4), 16);
  };
  if (_at + 6 > _text.size()) return lacking();
  const auto first = unit(_at + 2);
  if (!first) return refuse(Rule::noJSON);
  if (*first == 0) return refuse(Rule::nul);
  const bool isHigh = *first >= 0xD800 && *first < 0xDC00;
  if (*first >= 0xDC00 && *first < 0xE000) return refuse(Rule::surrogate);
  if (isHigh) {
    if (_at + 12 > _text.size() && !_isWhole) return Step::lacking;
    const auto second = _text.substr(_at + 6, 2) == "\\u" ? unit(_at + 8) : std::nullopt;
    if (!second || *second < 0xDC00 || *second >= 0xE000) return refuse(Rule::surrogate);
  }
  _at += isHigh ? 12 : 6;
  return Step::done;
}

// Of more bytes than one, or one that may not stand in a string.
JSONCheck::Step JSONCheck::character() {
  const auto first = static_cast<unsigned char>(_text[_at]);
  if (first == 0) return refuse(Rule::nul);
  if (first < 0x20) return refuse(Rule::noJSON);
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 1;
  if (_at + size > _text.size() && !_isWhole) return Step::lacking;
  const DecodedCharacter decoded = decodeUTF8(_text, _at);
  if (!decoded.valid) return refuse(Rule::noUTF8);
  _at += decoded.length;
  return Step::done;
}

JSONCheck::Step JSONCheck::stringEnd() {
  const std::size_t size = _at - _stringStart;
  ++_at;
  _isInString = false;
  if (!_isKey) return afterValue();
  _keys.add(_text, _stringStart, size, _hasEscapes);
  if (_depth == 1) {
    const std::string_view key = _text.substr(_stringStart, size);
    _valueIsEvents = _hasEscapes ? unescaped(key) == eventsKey : key == eventsKey;
    _hasEvents |= _valueIsEvents;
  }
  _expected = Expected::colon;
  return stepOver(':', Expected::value);
}

JSONCheck::Step JSONCheck::number() {
  std::size_t end = _at;
  const std::size_t most = std::min(_text.size(), _at + limits::numberBytes + 1);
  while (end < most && isOfNumber(_text[end])) ++end;
  if (end == _at) return refuse(_text[_at] == '\0' ? Rule::nul : Rule::noJSON);
  if (end - _at > limits::numberBytes) return refuse(Rule::number);
  if (end == _text.size() && !_isWhole) return Step::lacking;
  const std::string_view text = _text.substr(_at, end - _at);
  std::optional<std::size_t> exponent;
  if (!isNumber(text, exponent)) return refuse(Rule::noJSON);
  if (!isInRange(text, exponent)) return refuse(Rule::number);
  _at = end;
  return afterValue();
}

JSONCheck::Step JSONCheck::literal() {
  const std::string_view word = _text[_at] == 't' ? "true" : _text[_at] == 'f' ? "false" : "null";
  const std::string_view there = _text.substr(_at, word.size());
  if (there != word.substr(0, there.size())) return refuse(Rule::noJSON);
  if (there.size() < word.size()) return lacking();
  _at += word.size();
  return afterValue();
}

JSONCheck::Step JSONCheck::open(bool isObject) {
  if (_depth == limits::nesting) return refuse(Rule::nesting);
  ++_at;
  _isObject[_depth++] = isObject;
  _isInEvents |= _valueIsEvents;
  _valueIsEvents = false;
  if (isObject) _keys.openObject();
  _expected = isObject ? Expected::keyOrEnd : Expected::valueOrEnd;
  return Step::done;
}

JSONCheck::Step JSONCheck::close() {
  if (isInnermostObject())
    if (const auto twice = _keys.closeObject(_text)) return refuse(Rule::duplicateKey, twice);
  ++_at;
  --_depth;
  if (_depth == 1) _isInEvents = false;
  if (_depth > 0) return afterValue();
  if (!_hasEvents) return refuse(Rule::noEvents);
  _expected = Expected::nothing;
  return Step::done;
}

JSONCheck::Step JSONCheck::afterValue() {
  _expected = Expected::commaOrEnd;
  return stepOverComma();
}

JSONCheck::Step JSONCheck::stepOverComma() {
  return stepOver(',', isInnermostObject() ? Expected::key : Expected::value);
}

// Where it comes next, as it mostly does.
JSONCheck::Step JSONCheck::stepOver(char separator, Expected next) {
  if (_at < _text.size() && _text[_at] == separator) {
    ++_at;
    _expected = next;
  }
  return Step::done;
}

JSONCheck::Step JSONCheck::refuse(Rule rule, std::optional<std::size_t> at) {
  _refusal = Refusal{rule, fmt::format("at byte {}", at.value_or(_at))};
  return Step::refused;
}

}  // namespace corvid::fleet
