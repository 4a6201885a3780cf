// How values look in log lines: an absent object is "(null)", a string its own text, containers
// compact JSON without escaped "/", a date "2026-11-20 20:13:05 +0000" (UTC), a boolean 1 or 0.
#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>

#include "base/Value.h"

namespace corvid {

inline constexpr std::string_view nullDescription = "(null)";

std::string description(const Value& value);
std::string description(const Array& array);
std::string description(const Dictionary& dictionary);
// Outside the years that the calendar functions know, the seconds as a number.
std::string descriptionOfDate(double secondsSince1970);

inline std::string_view orNull(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : nullDescription;
}
inline std::string_view orNull(const std::string* text) {
  return text ? std::string_view(*text) : nullDescription;
}

// An argument of a log call that is described only if the line is written.
template <class T>
struct Described {
  const T* value;  // nullptr: absent
};
template <class T>
Described<T> described(const T* value) {
  return {value};
}

}  // namespace corvid

template <class T>
struct fmt::formatter<corvid::Described<T>> : fmt::formatter<std::string_view> {
  auto format(const corvid::Described<T>& argument, fmt::format_context& context) const {
    const std::string text = argument.value ? corvid::description(*argument.value)
                                            : std::string(corvid::nullDescription);
    return fmt::formatter<std::string_view>::format(text, context);
  }
};
