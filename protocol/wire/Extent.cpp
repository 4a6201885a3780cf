#include "protocol/wire/Extent.h"

#include "protocol/Limits.h"

namespace corvid::wire {

namespace {

constexpr std::size_t wordsPerValue = 4;

}  // namespace

void Extent::fail(Fitness reason) {
  if (fitness == Fitness::fits) fitness = reason;
}

void Extent::addBytes(std::size_t bytes) {
  words += (bytes + wordBytes - 1) / wordBytes;
  if (words > limits::messageBytes / wordBytes) fail(Fitness::tooLarge);
}

void Extent::addElements(std::size_t newValues, std::size_t depth) {
  words += 1 + newValues * wordsPerValue;
  values += newValues;
  if (values > limits::valuesPerMessage) fail(Fitness::tooLarge);
  if (depth > limits::valueNesting) fail(Fitness::tooDeep);
}

void Extent::add(const Dictionary& dictionary, std::size_t depth) {
  addElements(dictionary.size(), depth);
  for (const auto& [key, value] : dictionary) {
    if (fitness != Fitness::fits) return;
    addText(key);
    add(value, depth);
  }
}

void Extent::add(const Array& array, std::size_t depth) {
  addElements(array.size(), depth);
  for (const Value& value : array) {
    if (fitness != Fitness::fits) return;
    add(value, depth);
  }
}

void Extent::add(const Value& value, std::size_t depth) {
  switch (value.type()) {
    case Value::Type::string: addText(*value.string()); break;
    case Value::Type::data: addBytes(value.data()->size()); break;
    case Value::Type::array: add(*value.array(), depth + 1); break;
    case Value::Type::dictionary: add(*value.dictionary(), depth + 1); break;
    default: break;
  }
}

}  // namespace corvid::wire
