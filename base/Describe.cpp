#include "base/Describe.h"

#include <cmath>
#include <ctime>

#include "base/Text.h"

namespace corvid {

namespace {

void appendQuoted(std::string& text, std::string_view content) {
  text.push_back('"');
  for (const char c : content) {
    switch (c) {
      case '"': text += "\\\""; break;
      case '\\': text += "\\\\"; break;
      case '\b': text += "\\b"; break;
      case '\f': text += "\\f"; break;
      case '\n': text += "\\n"; break;
      case '\r': text += "\\r"; break;
      case '\t': text += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20)
          text += fmt::format("\\u{:04X}", static_cast<unsigned>(c));
        else
          text.push_back(c);
    }
  }
  text.push_back('"');
}

void appendJSON(std::string& text, const Value& value);

void appendJSON(std::string& text, const Array& array) {
  text.push_back('[');
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) text.push_back(',');
    appendJSON(text, array[i]);
  }
  text.push_back(']');
}

void appendJSON(std::string& text, const Dictionary& dictionary) {
  text.push_back('{');
  bool first = true;
  for (const auto& [key, value] : dictionary) {
    if (!first) text.push_back(',');
    first = false;
    appendQuoted(text, key);
    text.push_back(':');
    appendJSON(text, value);
  }
  text.push_back('}');
}

void appendJSON(std::string& text, const Value& value) {
  switch (value.type()) {
    case Value::Type::null: text += "null"; break;
    case Value::Type::boolean: text += *value.boolean() ? "true" : "false"; break;
    case Value::Type::string: appendQuoted(text, *value.string()); break;
    case Value::Type::date:
    case Value::Type::data: appendQuoted(text, description(value)); break;
    case Value::Type::array: appendJSON(text, *value.array()); break;
    case Value::Type::dictionary: appendJSON(text, *value.dictionary()); break;
    case Value::Type::integer:
    case Value::Type::real: text += description(value); break;
  }
}

}  // namespace

std::string description(const Value& value) {
  switch (value.type()) {
    case Value::Type::null: return std::string(nullDescription);
    case Value::Type::boolean: return *value.boolean() ? "1" : "0";
    case Value::Type::integer: return fmt::format("{}", *value.integer());
    case Value::Type::real: return fmt::format("{}", *value.real());
    case Value::Type::date: return descriptionOfDate(value.date()->secondsSince1970);
    case Value::Type::string: return *value.string();
    case Value::Type::data: return hexadecimal(*value.data());
    case Value::Type::array: return description(*value.array());
    case Value::Type::dictionary: return description(*value.dictionary());
  }
  return {};
}

std::string description(const Array& array) {
  std::string text;
  appendJSON(text, array);
  return text;
}

std::string description(const Dictionary& dictionary) {
  std::string text;
  appendJSON(text, dictionary);
  return text;
}

std::string descriptionOfDate(double secondsSince1970) {
  constexpr double farthest = 253402300799.0;  // the last second of the year 9999
  if (!(std::fabs(secondsSince1970) <= farthest)) return fmt::format("{}", secondsSince1970);
  const auto seconds = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm utc{};
  if (gmtime_r(&seconds, &utc) == nullptr) return fmt::format("{}", secondsSince1970);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

}  // namespace corvid
