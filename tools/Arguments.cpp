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

}  // namespace

const Value* Arguments::find(std::string_view key) const {
  const Value* value = _object.find(key);
  return value && !value->isNull() ? value : nullptr;
}

std::optional<Dictionary> Arguments::dictionary(std::string_view key) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  if (!value->dictionary()) throw wrong(key, "an object");
  return *value->dictionary();
}

std::optional<Array> Arguments::array(std::string_view key) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  if (!value->array()) throw wrong(key, "an array");
  return *value->array();
}

std::optional<bool> Arguments::boolean(std::string_view key) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  return required(value->boolean(), key, "true or false");
}

std::optional<std::int64_t> Arguments::integer(std::string_view key, std::int64_t least,
                                               std::int64_t most) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  const auto number = value->integer();
  if (!number || *number < least || *number > most)
    throw wrong(key, fmt::format("a whole number from {} to {}", least, most));
  return number;
}

std::optional<double> Arguments::seconds(std::string_view key) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  const auto number = value->boolean() ? std::nullopt : asNumber(value);
  if (!number || !(*number >= 0) || *number > 3600) throw wrong(key, someSeconds);
  return number;
}

std::optional<std::string> Arguments::text(std::string_view key) const {
  const Value* value = find(key);
  if (!value) return std::nullopt;
  if (!value->string()) throw wrong(key, aText);
  return *value->string();
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
