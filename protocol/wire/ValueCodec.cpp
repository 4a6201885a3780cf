#include "protocol/wire/ValueCodec.h"

#include <fmt/format.h>

#include <cmath>
#include <utility>

#include "base/Text.h"

namespace corvid::wire {

namespace {

capnp::Data::Reader dataReader(const std::string& bytes) {
  return {reinterpret_cast<const capnp::byte*>(bytes.data()), bytes.size()};
}

void encodeValue(const Value& value, PropertyValue::Builder target) {
  switch (value.type()) {
    case Value::Type::null: target.setAbsent(); break;
    case Value::Type::boolean: target.setBoolean(*value.boolean()); break;
    case Value::Type::integer: target.setInt64(*value.integer()); break;
    case Value::Type::real: target.setFloat64(*value.real()); break;
    case Value::Type::date: target.setDate(value.date()->secondsSince1970); break;
    case Value::Type::string: target.setText(textReader(*value.string())); break;
    case Value::Type::data: target.setData(dataReader(*value.data())); break;
    case Value::Type::array:
      encode(*value.array(), [&](auto size) { return target.initList(size); });
      break;
    case Value::Type::dictionary:
      encode(*value.dictionary(), [&](auto size) { return target.initDictionary(size); });
      break;
  }
}

}  // namespace

void ValueDecoder::enter(std::size_t newValues) {
  _values += newValues;
  if (_values > limits::valuesPerMessage)
    throw BrokenRule(fmt::format("more than {} values in a message", limits::valuesPerMessage));
  if (++_depth > limits::valueNesting)
    throw BrokenRule(fmt::format("values nested deeper than {}", limits::valueNesting));
}

std::string ValueDecoder::text(capnp::Text::Reader text) {
  const std::string_view content(text.begin(), text.size());
  if (!isValidUTF8(content)) throw BrokenRule("a text that is not UTF-8");
  return std::string(content);
}

Dictionary ValueDecoder::dictionary(ValueList::Reader entries) {
  enter(entries.size());
  Dictionary dictionary;
  dictionary.reserve(entries.size());
  for (const PropertyValue::Reader entry : entries)
    dictionary.set(text(entry.getKey()), value(entry));
  leave();
  return dictionary;
}

std::optional<Dictionary> ValueDecoder::dictionary(bool isPresent, ValueList::Reader entries) {
  if (!isPresent) return std::nullopt;
  return dictionary(entries);
}

Array ValueDecoder::array(ValueList::Reader elements) {
  enter(elements.size());
  Array array;
  array.reserve(elements.size());
  for (const PropertyValue::Reader element : elements) array.push_back(value(element));
  leave();
  return array;
}

Value ValueDecoder::value(PropertyValue::Reader value) {
  switch (value.which()) {
    case PropertyValue::ABSENT: return {};
    case PropertyValue::BOOLEAN: return value.getBoolean();
    case PropertyValue::INT64: return value.getInt64();
    case PropertyValue::FLOAT64: return value.getFloat64();
    case PropertyValue::DATE: {
      const Date date{value.getDate()};
      if (!std::isfinite(date.secondsSince1970)) throw BrokenRule("a date that is no number");
      return date;
    }
    case PropertyValue::TEXT: return text(value.getText());
    case PropertyValue::DATA: {
      const capnp::Data::Reader bytes = value.getData();
      return Data{{reinterpret_cast<const char*>(bytes.begin()), bytes.size()}};
    }
    case PropertyValue::LIST: return array(value.getList());
    case PropertyValue::DICTIONARY: return dictionary(value.getDictionary());
  }
  throw BrokenRule("a value of a type that is not known");
}

void encode(const Dictionary& dictionary, ValueList::Builder entries) {
  capnp::uint at = 0;
  for (const auto& [key, value] : dictionary) {
    PropertyValue::Builder entry = entries[at++];
    entry.setKey(textReader(key));
    encodeValue(value, entry);
  }
}

void encode(const Array& array, ValueList::Builder elements) {
  capnp::uint at = 0;
  for (const Value& value : array) encodeValue(value, elements[at++]);
}

}  // namespace corvid::wire
