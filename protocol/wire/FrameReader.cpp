#include "protocol/wire/FrameReader.h"

#include <capnp/serialize.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid::wire {

namespace {

constexpr std::size_t wordBytes = sizeof(capnp::word);

// Lets a peer's message be read about twice as a whole, and its envelope some times more, but not
// be blown up by pointers that share what they point at.
capnp::ReaderOptions readerOptions(std::size_t words) {
  capnp::ReaderOptions options;
  options.traversalLimitInWords = 2 * words + 1024;
  options.nestingLimit = static_cast<int>(2 * limits::valueNesting + 32);
  return options;
}

std::uint32_t littleEndian(const kj::byte* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

}  // namespace

kj::ArrayPtr<kj::byte> FrameReader::space() {
  if (_message != nullptr) {
    kj::ArrayPtr<kj::byte> bytes = _message.asBytes();
    return bytes.slice(_filled, bytes.size());
  }
  if (_begin > 0) {
    std::memmove(_staging.data(), _staging.data() + _begin, staged());
    _end -= _begin;
    _begin = 0;
  }
  return {_staging.data() + _end, _staging.size() - _end};
}

void FrameReader::filled(std::size_t bytes) {
  if (_message != nullptr)
    _filled += bytes;
  else
    _end += bytes;
}

// Starts the next message once its header is there: the number of segments less one, then the size
// of each in words, four bytes each, padded to whole words.
void FrameReader::begin() {
  static_assert((limits::segmentsPerMessage / 2 + 1) * wordBytes < sizeof _staging);
  if (staged() < wordBytes) return;
  const kj::byte* header = _staging.data() + _begin;
  const std::size_t segments = std::size_t{littleEndian(header)} + 1;
  if (segments > limits::segmentsPerMessage)
    throw BrokenRule(fmt::format("a message of {} segments", segments));
  const std::size_t headerWords = segments / 2 + 1;
  if (staged() < headerWords * wordBytes) return;
  std::size_t words = headerWords;
  for (std::size_t i = 1; i <= segments; ++i) words += littleEndian(header + 4 * i);
  if (words > limits::messageBytes / wordBytes)
    throw BrokenRule(fmt::format("a message of {} bytes", words * wordBytes));
  if (_admission && words * wordBytes > sizeof _staging) {
    _granted = _admission(words * wordBytes);
    _isHeldBack = _granted == nullptr;
    if (_isHeldBack) return;
  }
  _message = kj::heapArray<capnp::word>(words);
  _filled = 0;
}

kj::Own<capnp::MessageReader> FrameReader::next() {
  if (_message == nullptr) begin();
  if (_message == nullptr) return {};
  kj::ArrayPtr<kj::byte> bytes = _message.asBytes();
  if (const std::size_t more = std::min(staged(), bytes.size() - _filled); more > 0) {
    std::memcpy(bytes.begin() + _filled, _staging.data() + _begin, more);
    _begin += more;
    _filled += more;
  }
  if (_filled < bytes.size()) return {};
  _position += bytes.size();
  kj::Array<capnp::word> words = std::exchange(_message, nullptr);
  auto reader = kj::heap<capnp::FlatArrayMessageReader>(words, readerOptions(words.size()));
  return reader.attach(kj::mv(words), std::exchange(_granted, nullptr));
}

}  // namespace corvid::wire
