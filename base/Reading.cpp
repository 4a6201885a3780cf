#include "base/Reading.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/Text.h"

namespace corvid {

namespace {

// A shell word: in single quotes everything stands for itself, elsewhere a backslash takes the next
// character as it is.
std::string unquoted(std::string_view word) {
  std::string text;
  char quote = 0;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (quote == 0 ? c == '"' || c == '\'' : c == quote)
      quote = quote == 0 ? c : '\0';
    else if (c == '\\' && quote != '\'' && i + 1 < word.size())
      text.push_back(word[++i]);
    else
      text.push_back(c);
  }
  return text;
}

}  // namespace

std::int64_t integerFromText(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  std::int64_t number = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), number).ec !=
      std::errc::result_out_of_range)
    return number;
  return text.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                               : std::numeric_limits<std::int64_t>::max();
}

std::optional<std::string> assignedValue(std::string_view text, std::string_view name) {
  std::string value;
  for (std::string_view line : split(text, '\n')) {
    line = trimmed(line);
    if (!line.starts_with(name) || line.substr(name.size(), 1) != "=") continue;
    value = unquoted(trimmed(line.substr(name.size() + 1)));
  }
  if (value.empty()) return std::nullopt;
  return value;
}

std::optional<std::int64_t> asInteger(const Value* value) {
  if (value == nullptr) return std::nullopt;
  if (auto integer = value->integer()) return integer;
  if (auto boolean = value->boolean()) return *boolean ? 1 : 0;
  if (auto real = value->real()) {
    if (std::isnan(*real)) return 0;
    if (*real >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
    if (*real < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(*real);
  }
  if (const std::string* text = value->string()) return integerFromText(*text);
  return std::nullopt;
}

std::optional<double> asNumber(const Value* value) {
  if (value == nullptr) return std::nullopt;
  if (auto real = value->real()) return real;
  if (auto integer = value->integer()) return static_cast<double>(*integer);
  if (auto boolean = value->boolean()) return *boolean ? 1.0 : 0.0;
  return std::nullopt;
}

std::optional<bool> asBoolean(const Value* value) {
  if (value == nullptr) return std::nullopt;
  if (auto boolean = value->boolean()) return boolean;
  if (auto integer = value->integer()) return *integer != 0;
  if (auto real = value->real()) return *real != 0;
  return std::nullopt;
}

std::optional<std::string> asText(const Value* value) {
  const std::string* text = value ? value->string() : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

std::int32_t int32At(const Dictionary& dictionary, std::string_view key) {
  return static_cast<std::int32_t>(integerAt(dictionary, key).value_or(0));
}
std::optional<std::int64_t> integerAt(const Dictionary& dictionary, std::string_view key) {
  return asInteger(dictionary.find(key));
}
bool booleanAt(const Dictionary& dictionary, std::string_view key) {
  return asBoolean(dictionary.find(key)).value_or(false);
}
const std::string* stringAt(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value ? value->string() : nullptr;
}
std::optional<std::string> textAt(const Dictionary& dictionary, std::string_view key) {
  return asText(dictionary.find(key));
}
const Array* arrayAt(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value ? value->array() : nullptr;
}
const Dictionary* dictionaryAt(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value ? value->dictionary() : nullptr;
}

}  // namespace corvid
