#include "tools/Arguments.h"

#include <fmt/format.h>

#include "base/Reading.h"

namespace corvid::tools {

namespace {

constexpr const char* aText = "a text";
constexpr const char* someSeconds = "a number of seconds from 0 to 3600";

InputError wrong(std::string_view key, std::string_view wanted) {
  return InputError(fmt::format("\"{}\" must be {}", key, wanted));
}

template <class T>
T required(std::optional<T> value, std::string_view key, std::string_view wanted) {
  if (!value) throw wrong(key, wanted);
  return *std::move(value);
}

// What `read` makes of the value under `key`, which is wrong where that is nothing.
template <class Read>
auto valueAt(const Dictionary& object, std::string_view key, std::string_view wanted, Read read)
    -> decltype(read(Value())) {
  const Value* value = object.find(key);
  if (!value || value->isNull()) return std::nullopt;
  return required(read(*value), key, wanted);
}

template <class T>
std::optional<T> copyOf(const T* content) {
  return content ? std::optional(*content) : std::nullopt;
}

}  // namespace

std::optional<Dictionary> Arguments::dictionary(std::string_view key) const {
  return valueAt(_object, key, "an object", [](const Value& v) { return copyOf(v.dictionary()); });
}

std::optional<Array> Arguments::array(std::string_view key) const {
  return valueAt(_object, key, "an array", [](const Value& v) { return copyOf(v.array()); });
}

std::optional<bool> Arguments::boolean(std::string_view key) const {
  return valueAt(_object, key, "true or false", [](const Value& v) { return v.boolean(); });
}

std::optional<std::int64_t> Arguments::integer(std::string_view key, std::int64_t least,
                                               std::int64_t most) const {
  return valueAt(_object, key, fmt::format("a whole number from {} to {}", least, most),
                 [&](const Value& value) {
                   const auto number = value.integer();
                   return number >= least && number <= most ? number : std::nullopt;
                 });
}

std::optional<double> Arguments::seconds(std::string_view key) const {
  return valueAt(_object, key, someSeconds, [](const Value& value) {
    const auto number = value.boolean() ? std::nullopt : asNumber(&value);
    return number >= 0.0 && number <= 3600.0 ? number : std::nullopt;
  });
}

std::optional<std::string> Arguments::text(std::string_view key) const {
  return valueAt(_object, key, aText, [](const Value& v) { return copyOf(v.string()); });
}

std::string Arguments::requiredText(std::string_view key) const {
  return required(text(key), key, aText);
}

std::string Arguments::requiredPath(std::string_view key) const {
  const std::string path = requiredText(key);
  if (path.empty() || path.find('\0') != std::string::npos) throw wrong(key, "the path of a file");
  return path;
}

double Arguments::requiredSeconds(std::string_view key) const {
  return required(seconds(key), key, someSeconds);
}

}  // namespace corvid::tools
