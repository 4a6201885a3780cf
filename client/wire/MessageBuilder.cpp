#include "client/wire/MessageBuilder.h"

namespace corvid::library::wire {

namespace {

// The first two bits of a pointer.
enum Kind : std::uint64_t { aStruct = 0, aList = 1, aCapability = 3 };
// What the elements of a list are.
enum Elements : std::uint64_t { bytesEach = 2, structs = 7 };

// From the end of the pointer to what it points to.
std::uint64_t offset(std::size_t pointer, std::size_t target) {
  const auto words = static_cast<std::int64_t>(target) - static_cast<std::int64_t>(pointer) - 1;
  return (static_cast<std::uint64_t>(words) & 0x3fffffff) << 2;
}

std::uint64_t sizes(Size size) {
  return std::uint64_t{size.data} << 32 | std::uint64_t{size.pointers} << 48;
}

}  // namespace

MessageBuilder::Struct MessageBuilder::putStruct(std::size_t pointer, Size size) {
  // One without content would look like none; it points to its own pointer.
  const bool isEmpty = size.data + size.pointers == 0;
  const std::size_t at = isEmpty ? pointer : allocate(std::size_t{size.data} + size.pointers);
  setWord(pointer, aStruct | offset(pointer, at) | sizes(size));
  return Struct(*this, at, size);
}

MessageBuilder::Struct MessageBuilder::initRoot(Size size) { return putStruct(root, size); }

std::string_view MessageBuilder::finished() {
  constexpr std::uint64_t oneSegment = 0;  // the number of segments less one
  setWord(0, oneSegment | std::uint64_t{_words.size() - 1} << 32);
  return {bytes(0), _words.size() * sizeof _words[0]};
}

MessageBuilder::Struct MessageBuilder::Struct::initStruct(Pointer at, Size size) const {
  return _message->putStruct(_pointers + at.index, size);
}

MessageBuilder::List MessageBuilder::Struct::initList(Pointer at, std::size_t count,
                                                      Size size) const {
  const std::size_t pointer = _pointers + at.index;
  const std::size_t words = count * (std::size_t{size.data} + size.pointers);
  const std::size_t tag = _message->allocate(1 + words);
  _message->setWord(pointer,
                    aList | offset(pointer, tag) | structs << 32 | std::uint64_t{words} << 35);
  _message->setWord(tag, aStruct | std::uint64_t{count} << 2 | sizes(size));
  return List(*_message, tag + 1, size);
}

void MessageBuilder::Struct::setBytes(Pointer at, std::string_view content, bool ends) const {
  const std::size_t pointer = _pointers + at.index;
  const std::size_t length = content.size() + ends;
  const std::size_t target = _message->allocate((length + 7) / 8);
  _message->setWord(
      pointer, aList | offset(pointer, target) | bytesEach << 32 | std::uint64_t{length} << 35);
  if (!content.empty()) std::memcpy(_message->bytes(target), content.data(), content.size());
}

void MessageBuilder::Struct::setText(Pointer at, std::string_view text) const {
  setBytes(at, text, true);
}
void MessageBuilder::Struct::setData(Pointer at, std::string_view bytes) const {
  setBytes(at, bytes, false);
}

void MessageBuilder::Struct::setCapability(Pointer at, std::uint32_t index) const {
  _message->setWord(_pointers + at.index, aCapability | std::uint64_t{index} << 32);
}

}  // namespace corvid::library::wire
