// Property values to and from their form on the wire.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/Value.h"
#include "client/wire/MessageBuilder.h"
#include "client/wire/MessageReader.h"

namespace corvid::library::wire {

// Fills the list at that place; without content there is none.
void encode(const Dictionary& dictionary, MessageBuilder::Struct target, Pointer at);
void encode(const Array& array, MessageBuilder::Struct target, Pointer at);
template <class Content>
void encode(const std::optional<Content>& content, MessageBuilder::Struct target, Pointer at) {
  if (content) encode(*content, target, at);
}

// Decodes the values of one message. Throws BadMessage past the limits of protocol/Limits.h, where
// a text is not UTF-8 or a value of no known type.
class ValueDecoder {
 public:
  // Nothing where the field is absent.
  std::optional<Dictionary> dictionary(MessageReader::Struct source, Pointer at);
  std::optional<Array> array(MessageReader::Struct source, Pointer at);
  std::optional<std::string> text(MessageReader::Struct source, Pointer at);

 private:
  Dictionary dictionary(MessageReader::List entries);
  Array array(MessageReader::List elements);
  Value value(MessageReader::Struct value);
  std::string text(std::string_view content);
  void enter(std::size_t count);

  std::size_t _values = 0;
  std::size_t _depth = 0;
};

}  // namespace corvid::library::wire
