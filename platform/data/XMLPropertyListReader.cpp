// Reads the subset of XML that property lists use: no namespaces, no entities but the five of XML
// and character references, and no declarations inside the document.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyListForms.h"

namespace corvid {

namespace {

constexpr std::string_view blanks = " \t\r\n";

// Reads the whole of `text` as a number of type T; nothing when it is none or does not fit.
template <class T, class... Form>
std::optional<T> numberFrom(std::string_view text, Form... form) {
  T number{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, form...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

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

class XMLReader {
 public:
  XMLReader(std::string_view text, const PropertyListLimits& limits)
      : _text(text), _limits(limits) {}

  Result<Value> read() {
    Value root;
    if (!isValidUTF8(_text)) return Failure{"The property list is not UTF-8"};
    if (!readDocument(root)) return _failure;
    return root;
  }

 private:
  bool readDocument(Value& root);
  bool readValue(const Tag& tag, Value& value, std::size_t level);
  bool readArray(Value& value, std::size_t level);
  bool readDictionary(Value& value, std::size_t level);
  bool readScalar(const Tag& tag, Value& value);
  // The character content up to the closing tag, which is read too.
  bool readText(const Tag& tag, std::string& text);
  bool readReference(std::string& text);

  // Goes past blanks, comments and instructions, and a document type where one may stand.
  bool skipMisc(bool typeMayFollow = false);
  bool skipDocumentType();
  // From an opening mark past the closing one.
  bool skipPast(std::string_view start, std::string_view end, std::string_view what);
  bool readTag(Tag& tag);
  bool readClosingTag(std::string_view name);

  bool startsWith(std::string_view text) const { return _text.substr(_at).starts_with(text); }
  bool atEnd() const { return _at >= _text.size(); }
  bool fail(std::string_view reason) {
    const auto line = 1 + std::count(_text.begin(), _text.begin() + static_cast<long>(_at), '\n');
    _failure.message = fmt::format("{} at line {}", reason, line);
    return false;
  }

  const std::string_view _text;
  const PropertyListLimits& _limits;
  std::size_t _at = 0;
  std::size_t _values = 0;
  Failure _failure;
};

bool XMLReader::readDocument(Value& root) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (startsWith(byteOrderMark)) _at += byteOrderMark.size();
  Tag tag;
  if (!skipMisc(true) || !readTag(tag)) return false;
  if (tag.name == "plist") {
    if (tag.closes || tag.isEmpty) return fail("The property list holds no value");
    if (!skipMisc()) return false;
    if (startsWith("</")) return fail("The property list holds no value");
    if (!readTag(tag) || !readValue(tag, root, 0) || !skipMisc() || !readClosingTag("plist"))
      return false;
  } else if (!readValue(tag, root, 0)) {
    return false;
  }
  if (!skipMisc()) return false;
  return atEnd() || fail("Something follows the property list");
}

bool XMLReader::readValue(const Tag& tag, Value& value, std::size_t level) {
  if (tag.closes) return fail(fmt::format("Unexpected </{}>", tag.name));
  if (++_values > _limits.values)
    return fail(fmt::format("The property list has more than {} values", _limits.values));
  const bool isArray = tag.name == "array";
  if (!isArray && tag.name != "dict") return readScalar(tag, value);
  if (level >= _limits.depth)
    return fail(fmt::format("The property list has more than {} levels", _limits.depth));
  if (tag.isEmpty) {
    value = isArray ? Value(Array{}) : Value(Dictionary{});
    return true;
  }
  return isArray ? readArray(value, level + 1) : readDictionary(value, level + 1);
}

bool XMLReader::readArray(Value& value, std::size_t level) {
  Array elements;
  for (;;) {
    if (!skipMisc()) return false;
    if (startsWith("</")) break;
    Tag tag;
    if (!readTag(tag) || !readValue(tag, elements.emplace_back(), level)) return false;
  }
  value = std::move(elements);
  return readClosingTag("array");
}

bool XMLReader::readDictionary(Value& value, std::size_t level) {
  Dictionary entries;
  for (;;) {
    if (!skipMisc()) return false;
    if (startsWith("</")) break;
    Tag tag;
    std::string key;
    if (!readTag(tag)) return false;
    if (tag.name != "key") return fail(fmt::format("Expected <key>, found <{}>", tag.name));
    if (!readText(tag, key) || !skipMisc()) return false;
    if (startsWith("</")) return fail("A key without a value");
    Value entry;
    if (!readTag(tag) || !readValue(tag, entry, level)) return false;
    entries.set(std::move(key), std::move(entry));
  }
  value = std::move(entries);
  return readClosingTag("dict");
}

bool XMLReader::readScalar(const Tag& tag, Value& value) {
  constexpr std::string_view names[] = {"string", "integer", "real", "date",
                                        "data",   "true",    "false"};
  if (std::find(std::begin(names), std::end(names), tag.name) == std::end(names))
    return fail(fmt::format("Unknown element <{}>", tag.name));
  std::string text;
  if (!readText(tag, text)) return false;
  const auto accept = [&](auto content) {
    if (content) value = std::move(*content);
    return content || fail(fmt::format("<{}> with an impossible content", tag.name));
  };
  if (tag.name == "string") {
    value = std::move(text);
    return true;
  }
  if (tag.name == "integer") return accept(integerFromXML(trimmed(text)));
  if (tag.name == "real") return accept(realFromXML(trimmed(text)));
  if (tag.name == "date") return accept(dateFromXML(trimmed(text)));
  if (tag.name == "data") {
    std::optional<std::string> bytes = base64DecodeIgnoringUnknownCharacters(text);
    return accept(bytes ? std::optional(Data{std::move(*bytes)}) : std::nullopt);
  }
  return accept(trimmed(text).empty() ? std::optional(tag.name == "true") : std::nullopt);
}

bool XMLReader::readText(const Tag& tag, std::string& text) {
  if (tag.closes) return fail(fmt::format("Unexpected </{}>", tag.name));
  if (tag.isEmpty) return true;
  for (;;) {
    const std::size_t end = std::min(_text.find_first_of("<&\r", _at), _text.size());
    text += _text.substr(_at, end - _at);
    _at = end;
    if (atEnd()) return fail(fmt::format("<{}> is never closed", tag.name));
    if (_text[_at] == '&') {
      if (!readReference(text)) return false;
    } else if (_text[_at] == '\r') {  // a line end, whichever way it is written, is "\n"
      _at += startsWith("\r\n") ? 2 : 1;
      text.push_back('\n');
    } else if (startsWith("<!--")) {
      if (!skipPast("<!--", "-->", "comment")) return false;
    } else if (startsWith("<![CDATA[")) {
      constexpr std::string_view start = "<![CDATA[", stop = "]]>";
      const std::size_t content = _at + start.size();
      if (!skipPast(start, stop, "CDATA section")) return false;
      text += _text.substr(content, _at - stop.size() - content);
    } else {
      return readClosingTag(tag.name);
    }
  }
}

bool XMLReader::readReference(std::string& text) {
  constexpr std::size_t longest = 12;
  const std::size_t end = _text.substr(0, _at + longest).find(';', _at);
  if (end == std::string_view::npos) return fail("Unfinished entity");
  const std::string_view name = _text.substr(_at + 1, end - _at - 1);
  constexpr std::pair<std::string_view, char> entities[] = {
      {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
  const auto entity = std::find_if(std::begin(entities), std::end(entities),
                                   [&](const auto& known) { return known.first == name; });
  if (entity != std::end(entities)) {
    text.push_back(entity->second);
  } else {
    const auto character = characterFrom(name);
    if (!character) return fail("Unknown entity");
    appendUTF8(text, *character);
  }
  _at = end + 1;
  return true;
}

bool XMLReader::skipMisc(bool typeMayFollow) {
  for (;;) {
    _at = std::min(_text.find_first_not_of(blanks, _at), _text.size());
    if (startsWith("<!--")) {
      if (!skipPast("<!--", "-->", "comment")) return false;
    } else if (startsWith("<?")) {
      if (!skipPast("<?", "?>", "instruction")) return false;
    } else if (typeMayFollow && startsWith("<!DOCTYPE")) {
      if (!skipDocumentType()) return false;
      typeMayFollow = false;
    } else {
      return true;
    }
  }
}

bool XMLReader::skipDocumentType() {
  char quote = 0;
  for (; !atEnd(); ++_at) {
    const char c = _text[_at];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '[') {
      return fail("Declarations inside the document are not allowed");
    } else if (c == '>') {
      ++_at;
      return true;
    }
  }
  return fail("The document type never ends");
}

bool XMLReader::skipPast(std::string_view start, std::string_view end, std::string_view what) {
  const std::size_t found = _text.find(end, _at + start.size());
  if (found == std::string_view::npos) return fail(fmt::format("A {} never ends", what));
  _at = found + end.size();
  return true;
}

bool XMLReader::readTag(Tag& tag) {
  if (atEnd()) return fail("The property list ends early");
  if (_text[_at] != '<') return fail("Text where an element is expected");
  tag = {};
  tag.closes = startsWith("</");
  const std::size_t start = _at + (tag.closes ? 2 : 1);
  std::size_t end = start;
  for (char quote = 0; end < _text.size() && (quote != 0 || _text[end] != '>'); ++end) {
    const char c = _text[end];
    if (quote == 0 && (c == '"' || c == '\''))
      quote = c;
    else if (c == quote)
      quote = 0;
  }
  if (end >= _text.size()) return fail("A tag never ends");
  std::string_view content = _text.substr(start, end - start);
  tag.isEmpty = !tag.closes && content.ends_with('/');
  if (tag.isEmpty) content.remove_suffix(1);
  tag.name = content.substr(0, content.find_first_of(blanks));
  constexpr std::size_t longest = 64;
  if (tag.name.empty() || tag.name.size() > longest) return fail("A tag without a usable name");
  _at = end + 1;
  return true;
}

bool XMLReader::readClosingTag(std::string_view name) {
  Tag tag;
  if (!readTag(tag)) return false;
  if (tag.closes && tag.name == name) return true;
  return fail(fmt::format("Expected </{}>, found <{}{}>", name, tag.closes ? "/" : "", tag.name));
}

}  // namespace

Result<Value> readXMLPropertyList(std::string_view text, const PropertyListLimits& limits) {
  return XMLReader(text, limits).read();
}

}  // namespace corvid
