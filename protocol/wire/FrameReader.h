// Cuts the byte stream of a socket into Cap'n Proto messages.
//
// The owner reads into space(), says how much came with filled(), and takes messages from next()
// until there is none. A message announced by its header is checked against protocol/Limits.h
// before any memory is taken for it, and waits until its memory is granted.
//
// Errors: next() throws BrokenRule; nothing can be read from the stream after that.
#pragma once

#include <capnp/message.h>
#include <kj/array.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace corvid::wire {

class FrameReader {
 public:
  // Asked for the memory of a message that is larger than the reader's own. What it gives lives as
  // long as the message; null: not now.
  using Admission = std::function<std::shared_ptr<void>(std::size_t bytes)>;

  // Without an admission every message is let in.
  explicit FrameReader(Admission admission = {}) : _admission(std::move(admission)) {}

  // Where the next bytes of the stream go. Never empty.
  kj::ArrayPtr<kj::byte> space();
  void filled(std::size_t bytes);
  // The next complete message, or null. It owns its memory.
  kj::Own<capnp::MessageReader> next();
  // Whether next() gave none because the next message waits for memory. It asks again each time;
  // until then nothing more may be read.
  bool isHeldBack() const { return _isHeldBack; }
  // Whether a part of a message is there.
  bool isUnfinished() const { return _message != nullptr || staged() > 0; }
  // Where in the stream, in bytes from its start, the last message that next() gave ends.
  std::uint64_t position() const { return _position; }

 private:
  std::size_t staged() const { return _end - _begin; }
  void begin();

  const Admission _admission;
  bool _isHeldBack = false;
  std::shared_ptr<void> _granted;  // for the message under way
  // Headers and small messages; the rest of a larger message is read in place.
  std::array<kj::byte, 16384> _staging;
  std::size_t _begin = 0;
  std::size_t _end = 0;
  kj::Array<capnp::word> _message;  // the message under way, null between messages
  std::size_t _filled = 0;          // bytes of it that are there
  std::uint64_t _position = 0;
};

}  // namespace corvid::wire
