// Reads the subset of XML that property lists use: no namespaces, no entities but the five of XML
// and character references, and no declarations inside the document.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyListForms.h"

namespace corvid {

namespace {

constexpr std::string_view blanks = " \t\r\n";

// Decimal, or hexadecimal after "0x", with an optional sign. What fits only without a sign wraps.
std::optional<std::int64_t> integerFromXML(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  const auto magnitude = numberFrom<std::uint64_t>(text, isHexadecimal ? 16 : 10);
  constexpr std::uint64_t leastMagnitude = std::uint64_t{1} << 63;
  if (!magnitude || (negative && *magnitude > leastMagnitude)) return std::nullopt;
  return static_cast<std::int64_t>(negative ? 0 - *magnitude : *magnitude);
}

// Decimal; also "inf", "infinity" and "nan".
std::optional<double> realFromXML(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  return numberFrom<double>(text);
}

// Of the form "2026-11-20T20:13:05Z".
std::optional<Date> dateFromXML(std::string_view text) {
  constexpr std::string_view form = "0000-00-00T00:00:00Z";
  if (text.size() != form.size()) return std::nullopt;
  for (std::size_t i = 0; i < form.size(); ++i)
    if (form[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != form[i]) return std::nullopt;
  const auto field = [&](std::size_t at, std::size_t length) {
    return numberFrom<unsigned>(text.substr(at, length)).value_or(0);
  };
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(field(0, 4))),
                                        std::chrono::month(field(5, 2)),
                                        std::chrono::day(field(8, 2)));
  const unsigned hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::chrono::sys_seconds moment = std::chrono::sys_days(day) + std::chrono::hours(hour) +
                                          std::chrono::minutes(minute) +
                                          std::chrono::seconds(second);
  return Date{static_cast<double>(moment.time_since_epoch().count())};
}

// The character that "#233" or "#xE9" names.
std::optional<char32_t> characterFrom(std::string_view reference) {
  const bool isHexadecimal = reference.starts_with("#x");
  if (!reference.starts_with('#')) return std::nullopt;
  reference.remove_prefix(isHexadecimal ? 2 : 1);
  const auto character = numberFrom<std::uint32_t>(reference, isHexadecimal ? 16 : 10);
  const bool isSurrogate = character && *character >= 0xD800 && *character < 0xE000;
  if (!character || *character == 0 || *character > 0x10FFFF || isSurrogate) return std::nullopt;
  return *character;
}

struct Tag {
  std::string_view name;
  bool closes = false;   // </name>
  bool isEmpty = false;  // <name/>
};

// Reads one document, from the start to the end; the first fault is thrown.
class XMLReader {
 public:
  XMLReader(std::string_view text, const PropertyListLimits& limits)
      : _text(text), _limits(limits) {}

  Value read();

 private:
  Value readValue(const Tag& tag, std::size_t level);
  Value readArray(std::size_t level);
  Value readDictionary(std::size_t level);
  Value readScalar(const Tag& tag);
  // The character content up to the closing tag, which is read too.
  std::string readText(const Tag& tag);
  void readReference(std::string& text);

  // Goes past blanks, comments and instructions, and a document type where one may stand.
  void skipMisc(bool typeMayFollow = false);
  void skipDocumentType();
  // From an opening mark past the closing one.
  void skipPast(std::string_view start, std::string_view end, std::string_view what);
  // Whether something stands before the container's closing tag.
  bool hasElement() {
    skipMisc();
    return !startsWith("</");
  }
  Tag readTag();
  void readClosingTag(std::string_view name);

  bool startsWith(std::string_view text) const { return _text.substr(_at).starts_with(text); }
  bool atEnd() const { return _at >= _text.size(); }
  // Where the first of these characters stands that is not in quotes; the end where there is none.
  std::size_t findUnquoted(std::string_view characters, std::size_t at) const;
  [[noreturn]] void fail(std::string_view reason) const {
    const auto line = 1 + std::count(_text.begin(), _text.begin() + static_cast<long>(_at), '\n');
    throw UnusableList(fmt::format("{} at line {}", reason, line));
  }

  const std::string_view _text;
  const PropertyListLimits& _limits;
  std::size_t _at = 0;
  std::size_t _values = 0;
};

Value XMLReader::read() {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (!isValidUTF8(_text)) throw UnusableList("The property list is not UTF-8");
  if (startsWith(byteOrderMark)) _at += byteOrderMark.size();
  skipMisc(true);
  Tag tag = readTag();
  const bool isWrapped = tag.name == "plist";
  if (isWrapped) {
    if (tag.closes || tag.isEmpty || !hasElement()) fail("The property list holds no value");
    tag = readTag();
  }
  Value root = readValue(tag, 0);
  skipMisc();
  if (isWrapped) {
    readClosingTag("plist");
    skipMisc();
  }
  if (!atEnd()) fail("Something follows the property list");
  return root;
}

Value XMLReader::readValue(const Tag& tag, std::size_t level) {
  if (tag.closes) fail(fmt::format("Unexpected </{}>", tag.name));
  if (++_values > _limits.values) fail(UnusableList::tooMany("values", _limits.values));
  const bool isArray = tag.name == "array";
  if (!isArray && tag.name != "dict") return readScalar(tag);
  if (level >= _limits.depth) fail(UnusableList::tooMany("levels", _limits.depth));
  if (tag.isEmpty) return isArray ? Value(Array{}) : Value(Dictionary{});
  return isArray ? readArray(level + 1) : readDictionary(level + 1);
}

Value XMLReader::readArray(std::size_t level) {
  Array elements;
  while (hasElement()) elements.push_back(readValue(readTag(), level));
  readClosingTag("array");
  return Value(std::move(elements));
}

Value XMLReader::readDictionary(std::size_t level) {
  Dictionary entries;
  while (hasElement()) {
    const Tag tag = readTag();
    if (tag.name != "key") fail(fmt::format("Expected <key>, found <{}>", tag.name));
    std::string key = readText(tag);
    if (!hasElement()) fail("A key without a value");
    entries.set(std::move(key), readValue(readTag(), level));
  }
  readClosingTag("dict");
  return Value(std::move(entries));
}

Value XMLReader::readScalar(const Tag& tag) {
  constexpr std::string_view names[] = {"string", "integer", "real", "date",
                                        "data",   "true",    "false"};
  if (std::ranges::find(names, tag.name) == std::end(names))
    fail(fmt::format("Unknown element <{}>", tag.name));
  std::string text = readText(tag);
  const auto accepted = [&](auto content) {
    if (!content) fail(fmt::format("<{}> with an impossible content", tag.name));
    return Value(std::move(*content));
  };
  if (tag.name == "string") return Value(std::move(text));
  if (tag.name == "integer") return accepted(integerFromXML(trimmed(text)));
  if (tag.name == "real") return accepted(realFromXML(trimmed(text)));
  if (tag.name == "date") return accepted(dateFromXML(trimmed(text)));
  if (tag.name == "data") {
    std::optional<std::string> bytes = base64DecodeIgnoringUnknownCharacters(text);
    return accepted(bytes ? std::optional(Data{std::move(*bytes)}) : std::nullopt);
  }
  return accepted(trimmed(text).empty() ? std::optional(tag.name == "true") : std::nullopt);
}

std::string XMLReader::readText(const Tag& tag) {
  std::string text;
  if (tag.isEmpty) return text;
  for (;;) {
    const std::size_t end = std::min(_text.find_first_of("<&\r", _at), _text.size());
    text += _text.substr(_at, end - _at);
    _at = end;
    if (atEnd()) fail(fmt::format("<{}> is never closed", tag.name));
    if (_text[_at] == '&') {
      readReference(text);
    } else if (_text[_at] == '\r') {  // a line end, whichever way it is written, is "\n"
      _at += startsWith("\r\n") ? 2 : 1;
      text.push_back('\n');
    } else if (startsWith("<!--")) {
      skipPast("<!--", "-->", "comment");
    } else if (startsWith("<![CDATA[")) {
      constexpr std::string_view start = "<![CDATA[", stop = "]]>";
      const std::size_t content = _at + start.size();
      skipPast(start, stop, "CDATA section");
      text += _text.substr(content, _at - stop.size() - content);
    } else {
      readClosingTag(tag.name);
      return text;
    }
  }
}

void XMLReader::readReference(std::string& text) {
  constexpr std::size_t longest = 12;
  const std::size_t end = _text.substr(0, _at + longest).find(';', _at);
  if (end == std::string_view::npos) fail("Unfinished entity");
  const std::string_view name = _text.substr(_at + 1, end - _at - 1);
  constexpr std::pair<std::string_view, char> entities[] = {
      {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
  const auto* const entity =
      std::ranges::find(entities, name, &std::pair<std::string_view, char>::first);
  if (entity != std::end(entities)) {
    text.push_back(entity->second);
  } else {
    const auto character = characterFrom(name);
    if (!character) fail("Unknown entity");
    appendUTF8(text, *character);
  }
  _at = end + 1;
}

void XMLReader::skipMisc(bool typeMayFollow) {
  for (;;) {
    _at = std::min(_text.find_first_not_of(blanks, _at), _text.size());
    if (startsWith("<!--")) {
      skipPast("<!--", "-->", "comment");
    } else if (startsWith("<?")) {
      skipPast("<?", "?>", "instruction");
    } else if (typeMayFollow && startsWith("<!DOCTYPE")) {
      skipDocumentType();
      typeMayFollow = false;
    } else {
      return;
    }
  }
}

void XMLReader::skipDocumentType() {
  _at = findUnquoted("[>", _at);
  if (atEnd()) fail("The document type never ends");
  if (_text[_at] == '[') fail("Declarations inside the document are not allowed");
  ++_at;
}

void XMLReader::skipPast(std::string_view start, std::string_view end, std::string_view what) {
  const std::size_t found = _text.find(end, _at + start.size());
  if (found == std::string_view::npos) fail(fmt::format("A {} never ends", what));
  _at = found + end.size();
}

Tag XMLReader::readTag() {
  if (atEnd()) fail("The property list ends early");
  if (_text[_at] != '<') fail("Text where an element is expected");
  Tag tag;
  tag.closes = startsWith("</");
  const std::size_t start = _at + (tag.closes ? 2 : 1);
  const std::size_t end = findUnquoted(">", start);
  if (end >= _text.size()) fail("A tag never ends");
  std::string_view content = _text.substr(start, end - start);
  tag.isEmpty = !tag.closes && content.ends_with('/');
  if (tag.isEmpty) content.remove_suffix(1);
  tag.name = content.substr(0, content.find_first_of(blanks));
  constexpr std::size_t longest = 64;
  if (tag.name.empty() || tag.name.size() > longest) fail("A tag without a usable name");
  _at = end + 1;
  return tag;
}

void XMLReader::readClosingTag(std::string_view name) {
  const Tag tag = readTag();
  if (!tag.closes || tag.name != name)
    fail(fmt::format("Expected </{}>, found <{}{}>", name, tag.closes ? "/" : "", tag.name));
}

std::size_t XMLReader::findUnquoted(std::string_view characters, std::size_t at) const {
  for (char quote = 0; at < _text.size(); ++at) {
    const char c = _text[at];
    if (quote == 0 && characters.find(c) != characters.npos) return at;
    if (quote == 0 && (c == '"' || c == '\''))
      quote = c;
    else if (c == quote)
      quote = 0;
  }
  return at;
}

}  // namespace

Value readXMLPropertyList(std::string_view text, const PropertyListLimits& limits) {
  return XMLReader(text, limits).read();
}

}  // namespace corvid
