#include "base/Footprint.h"

namespace corvid {

namespace {

// Besides the Value object itself.
std::size_t beyondObject(const Value& value) {
  switch (value.type()) {
    case Value::Type::string: return value.string()->capacity();
    case Value::Type::data: return sizeof(Data) + value.data()->size();
    case Value::Type::array: {
      std::size_t bytes = sizeof(Array);
      for (const Value& element : *value.array()) bytes += sizeof(Value) + beyondObject(element);
      return bytes;
    }
    case Value::Type::dictionary: return sizeof(Dictionary) + footprint(*value.dictionary());
    default: return 0;
  }
}

}  // namespace

std::size_t footprint(const Dictionary& dictionary) {
  std::size_t bytes = 0;
  for (const Dictionary::Entry& entry : dictionary)
    bytes += sizeof(Dictionary::Entry) + entry.key.capacity() + beyondObject(entry.value);
  return bytes;
}

}  // namespace corvid
