// Property values to and from their form on the wire.
//
// Decoding is for a peer that is not trusted: it checks everything, reads each part of the message
// once and builds the result in place. Limits are those of protocol/Limits.h.
#pragma once

#include <capnp/list.h>

#include <concepts>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "base/Value.h"
#include "protocol/Limits.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/Extent.h"

namespace corvid::wire {

using ValueList = capnp::List<PropertyValue>;

// The peer's message breaks a rule; what() says which, for people.
class BrokenRule final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Decodes the values of one message, counting them. Throws BrokenRule, and kj::Exception where the
// message itself is malformed.
class ValueDecoder {
 public:
  Dictionary dictionary(ValueList::Reader entries);
  std::optional<Dictionary> dictionary(bool isPresent, ValueList::Reader entries);
  Array array(ValueList::Reader elements);
  std::string text(capnp::Text::Reader text);

 private:
  Value value(PropertyValue::Reader value);
  void enter(std::size_t count);
  void leave() { --_depth; }

  std::size_t _values = 0;
  std::size_t _depth = 0;
};

inline capnp::uint count(std::size_t size) { return static_cast<capnp::uint>(size); }
inline capnp::Text::Reader textReader(const std::string& text) {
  return {text.c_str(), text.size()};
}

void encode(const Dictionary& dictionary, ValueList::Builder entries);
void encode(const Array& array, ValueList::Builder elements);
// Fills the list that `init` makes for a number of elements; without content none is made.
template <class Content, std::invocable<capnp::uint> Init>
void encode(const Content& content, Init init) {
  encode(content, init(count(content.size())));
}
template <class Content, std::invocable<capnp::uint> Init>
void encode(const std::optional<Content>& content, Init init) {
  if (content) encode(*content, init);
}

}  // namespace corvid::wire
