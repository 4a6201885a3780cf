#include "tools/JSONValues.h"

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"

namespace corvid::tools {

namespace {

Result<Value> specialValue(const std::string& key, const Value& content) {
  if (key == "$date") {
    if (content.type() == Value::Type::integer || content.type() == Value::Type::real)
      return Value(Date{*asNumber(&content)});
    return Failure{"\"$date\" takes a number of seconds, not " + description(content)};
  }
  const std::string* text = content.string();
  const auto bytes = text ? base64DecodeIgnoringUnknownCharacters(*text) : std::nullopt;
  if (!bytes || base64Encode(*bytes) != *text)
    return Failure{"\"$data\" takes Base64, not " + description(content)};
  return Value(Data{*bytes});
}

}  // namespace

Result<Value> valueFromJSON(const Value& json) {
  if (const Array* array = json.array()) {
    Array result;
    for (const Value& item : *array) {
      Result<Value> value = valueFromJSON(item);
      if (!value) return value;
      result.push_back(std::move(value).value());
    }
    return Value(std::move(result));
  }
  if (const Dictionary* object = json.dictionary()) {
    if (object->size() == 1) {
      const auto& [key, content] = *object->begin();
      if (key == "$date" || key == "$data") return specialValue(key, content);
    }
    Dictionary result;
    for (const auto& [key, item] : *object) {
      Result<Value> value = valueFromJSON(item);
      if (!value) return value;
      result.set(key, std::move(value).value());
    }
    return Value(std::move(result));
  }
  return json;
}

Result<Value> valueFromWord(const std::string& word) {
  const Result<Value> json = parseJSON(word);
  return json ? valueFromJSON(json.value()) : Value(word);
}

Value jsonFromValue(const Value& value) {
  if (const auto date = value.date()) return Dictionary{{"$date", date->secondsSince1970}};
  if (const std::string* bytes = value.data()) return Dictionary{{"$data", base64Encode(*bytes)}};
  if (const Array* array = value.array()) {
    Array result;
    for (const Value& item : *array) result.push_back(jsonFromValue(item));
    return result;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    Dictionary result;
    for (const auto& [key, item] : *dictionary) result.set(key, jsonFromValue(item));
    return result;
  }
  return value;
}

}  // namespace corvid::tools
