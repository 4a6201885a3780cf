// Typed reads from texts and dictionaries whose content nobody has checked: storebags, session
// infos, preferences. A value of a type that cannot stand for the wanted one counts as absent.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "base/Value.h"

namespace corvid {

// The whole of `text` as a number of type T; nothing when it is none or does not fit. No sign but a
// minus, no blanks. `form`: as std::from_chars takes it.
template <class T, class... Form>
std::optional<T> numberFrom(std::string_view text, Form... form) {
  T number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, form...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// Reads leading decimal digits after optional blanks and an optional sign; 0 when there are none.
// Saturates at the ends of the 64-bit range.
std::int64_t integerFromText(std::string_view text);

// The value of `name` in a text of shell-like assignments such as os-release or locale.conf: the
// last one counts, quotes and backslashes are taken away. Nothing where it is missing or empty.
std::optional<std::string> assignedValue(std::string_view text, std::string_view name);

// Where the value is, or null: for what takes something that may be missing by its address.
template <class T>
const T* pointerTo(const std::optional<T>& value) {
  return value ? &*value : nullptr;
}

// The value as an integer: integers as they are, reals cut toward zero (not a number gives 0,
// saturating), booleans 1 and 0, strings by integerFromText. Nothing for the other types.
std::optional<std::int64_t> asInteger(const Value* value);
// The value as a double: reals, integers, booleans as 1 and 0. Nothing for the other types.
std::optional<double> asNumber(const Value* value);
// The value as a truth value: booleans, and numbers other than 0 are true. Nothing otherwise.
std::optional<bool> asBoolean(const Value* value);
// The value as a text, a copy: strings only.
std::optional<std::string> asText(const Value* value);

// The low 32 bits of asInteger, 0 when there is none.
std::int32_t int32At(const Dictionary& dictionary, std::string_view key);
std::optional<std::int64_t> integerAt(const Dictionary& dictionary, std::string_view key);
bool booleanAt(const Dictionary& dictionary, std::string_view key);
// Nothing when the key is missing or holds another type. The pointers live as long as the
// dictionary is unchanged.
const std::string* stringAt(const Dictionary& dictionary, std::string_view key);
std::optional<std::string> textAt(const Dictionary& dictionary, std::string_view key);  // a copy
const Array* arrayAt(const Dictionary& dictionary, std::string_view key);
const Dictionary* dictionaryAt(const Dictionary& dictionary, std::string_view key);

}  // namespace corvid
