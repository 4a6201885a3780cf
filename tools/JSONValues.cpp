#include "tools/JSONValues.h"

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "tools/Arguments.h"

namespace corvid::tools {

namespace {

// What {"$date":…} and {"$data":…} stand for; nothing for other values.
std::optional<Value> specialValue(const Value& json) {
  const Dictionary* object = json.dictionary();
  if (!object || object->size() != 1) return std::nullopt;
  const auto& [key, content] = *object->begin();
  if (key == "$date") {
    const auto seconds = content.boolean() ? std::nullopt : asNumber(&content);
    if (!seconds)
      throw InputError("\"$date\" takes a number of seconds, not " + description(content));
    return Date{*seconds};
  }
  if (key != "$data") return std::nullopt;
  const std::string* text = content.string();
  const auto bytes = text ? base64DecodeIgnoringUnknownCharacters(*text) : std::nullopt;
  if (!bytes || base64Encode(*bytes) != *text)
    throw InputError("\"$data\" takes Base64, not " + description(content));
  return Data{*bytes};
}

std::optional<Value> specialJSON(const Value& value) {
  if (const auto date = value.date()) return Dictionary{{"$date", date->secondsSince1970}};
  if (const std::string* bytes = value.data()) return Dictionary{{"$data", base64Encode(*bytes)}};
  return std::nullopt;
}

}  // namespace

Value replaced(const Value& value, const Replacement& replacement) {
  if (std::optional<Value> other = replacement(value)) return *std::move(other);
  if (const Array* array = value.array()) {
    Array result;
    for (const Value& item : *array) result.push_back(replaced(item, replacement));
    return result;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    Dictionary result;
    for (const auto& [key, item] : *dictionary) result.set(key, replaced(item, replacement));
    return result;
  }
  return value;
}

Result<Value> valueFromJSON(const Value& json) {
  try {
    return replaced(json, specialValue);
  } catch (const InputError& error) {
    return Failure{error.what()};
  }
}

Result<Value> valueFromWord(const std::string& word) {
  const Result<Value> json = parseJSON(word);
  return json ? valueFromJSON(json.value()) : Value(word);
}

Value jsonFromValue(const Value& value) { return replaced(value, specialJSON); }

}  // namespace corvid::tools
