#include "client/wire/Values.h"

#include <cmath>

#include "base/Text.h"
#include "protocol/Limits.h"

namespace corvid::library::wire {

namespace {

using P = PropertyValue;

void encodeValue(const Value& value, MessageBuilder::Struct target) {
  switch (value.type()) {
    case Value::Type::null: target.set(P::which, P::isAbsent); break;
    case Value::Type::boolean:
      target.set(P::which, P::isBoolean);
      target.set(P::boolean, *value.boolean());
      break;
    case Value::Type::integer:
      target.set(P::which, P::isInt64);
      target.set(P::int64, *value.integer());
      break;
    case Value::Type::real:
      target.set(P::which, P::isFloat64);
      target.set(P::float64, *value.real());
      break;
    case Value::Type::date:
      target.set(P::which, P::isDate);
      target.set(P::date, value.date()->secondsSince1970);
      break;
    case Value::Type::string:
      target.set(P::which, P::isText);
      target.setText(P::content, *value.string());
      break;
    case Value::Type::data:
      target.set(P::which, P::isData);
      target.setData(P::content, *value.data());
      break;
    case Value::Type::array:
      target.set(P::which, P::isList);
      encode(*value.array(), target, P::content);
      break;
    case Value::Type::dictionary:
      target.set(P::which, P::isDictionary);
      encode(*value.dictionary(), target, P::content);
      break;
  }
}

}  // namespace

void encode(const Dictionary& dictionary, MessageBuilder::Struct target, Pointer at) {
  const auto entries = target.initList(at, dictionary.size(), P::size);
  std::size_t index = 0;
  for (const auto& [key, value] : dictionary) {
    const MessageBuilder::Struct entry = entries[index++];
    entry.setText(P::key, key);
    encodeValue(value, entry);
  }
}

void encode(const Array& array, MessageBuilder::Struct target, Pointer at) {
  const auto elements = target.initList(at, array.size(), P::size);
  for (std::size_t i = 0; i < array.size(); ++i) encodeValue(array[i], elements[i]);
}

void ValueDecoder::enter(std::size_t count) {
  _values += count;
  if (_values > limits::valuesPerMessage) throw BadMessage("too many values");
  if (++_depth > limits::valueNesting) throw BadMessage("values nested too deeply");
}

std::string ValueDecoder::text(std::string_view content) {
  if (!isValidUTF8(content)) throw BadMessage("a text that is not UTF-8");
  return std::string(content);
}

std::optional<std::string> ValueDecoder::text(MessageReader::Struct source, Pointer at) {
  if (!source.has(at)) return std::nullopt;
  return text(source.text(at));
}

std::optional<Dictionary> ValueDecoder::dictionary(MessageReader::Struct source, Pointer at) {
  if (!source.has(at)) return std::nullopt;
  return dictionary(source.listAt(at));
}

std::optional<Array> ValueDecoder::array(MessageReader::Struct source, Pointer at) {
  if (!source.has(at)) return std::nullopt;
  return array(source.listAt(at));
}

Dictionary ValueDecoder::dictionary(MessageReader::List entries) {
  enter(entries.size());
  Dictionary dictionary;
  dictionary.reserve(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const MessageReader::Struct entry = entries[i];
    dictionary.set(text(entry.text(P::key)), value(entry));
  }
  --_depth;
  return dictionary;
}

Array ValueDecoder::array(MessageReader::List elements) {
  enter(elements.size());
  Array array;
  array.reserve(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i) array.push_back(value(elements[i]));
  --_depth;
  return array;
}

Value ValueDecoder::value(MessageReader::Struct source) {
  switch (source.get(P::which)) {
    case P::isAbsent: return {};
    case P::isBoolean: return source.get(P::boolean);
    case P::isInt64: return source.get(P::int64);
    case P::isFloat64: return source.get(P::float64);
    case P::isDate: {
      const Date date{source.get(P::date)};
      if (!std::isfinite(date.secondsSince1970)) throw BadMessage("a date that is no number");
      return date;
    }
    case P::isText: return text(source.text(P::content));
    case P::isData: return Data{std::string(source.data(P::content))};
    case P::isList: return array(source.listAt(P::content));
    case P::isDictionary: return dictionary(source.listAt(P::content));
    default: throw BadMessage("a value of a type that is not known");
  }
}

}  // namespace corvid::library::wire
