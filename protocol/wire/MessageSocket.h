// Cap'n Proto messages over a connected Unix stream socket.
//
// Writing never raises SIGPIPE. Reading takes what the socket holds in one system call, however
// many messages that is. Where the stream breaks a rule of FrameReader, reading fails with its
// text; a peer that is gone, also in the middle of a message, is an end of stream.
//
// A message may bring limits::descriptorsPerMessage open descriptors, which leave with its first
// byte. Whoever reads without room for descriptors never gets any: the system closes them.
//
// Threads: the event loop's.
#pragma once

#include <capnp/serialize-async.h>
#include <kj/io.h>
#include <kj/time.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "protocol/wire/FrameReader.h"
#include "protocol/wire/SocketPort.h"

namespace corvid::wire {

class MessageSocket final : public capnp::MessageStream {
 public:
  using capnp::MessageStream::writeMessage;
  using capnp::MessageStream::writeMessages;

  // What the reader of a peer that is not trusted keeps it to.
  struct Bounds {
    FrameReader::Admission admission;
    kj::Duration messageTime;  // from the first look at a message that is not complete
  };

  // `port` is borrowed, and with it the socket.
  explicit MessageSocket(SocketPort& port) : _port(port) {}
  MessageSocket(SocketPort& port, Bounds bounds)
      : _port(port), _frames(std::move(bounds.admission)), _messageTime(bounds.messageTime) {}

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(
      kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace, capnp::ReaderOptions options,
      kj::ArrayPtr<capnp::word> scratchSpace) override;
  kj::Promise<void> writeMessage(
      kj::ArrayPtr<const int> descriptors,
      kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override;
  kj::Promise<void> writeMessages(
      kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override;
  kj::Maybe<int> getSendBufferSize() override { return nullptr; }
  // No more will be written; the peer sees an end of stream.
  kj::Promise<void> end() override;

  // Hands to the socket what waits to leave.
  void flush();

 private:
  class Outgoing;
  enum class Received { something, nothing, end };

  // A descriptor, and where in the stream the bytes end that it came with.
  struct Passed {
    std::uint64_t position;
    kj::AutoCloseFd descriptor;
  };

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> readOn(
      kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace);
  // Fails where the message has not come in its time.
  kj::Promise<void> whenThereIsMore();
  kj::Maybe<capnp::MessageReaderAndFds> next(kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace);
  Received receive(bool takesDescriptors);
  void keepDescriptors(const msghdr& message);
  void gather(kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments);
  kj::Promise<void> send(kj::Own<Outgoing> outgoing);
  kj::Promise<void> untilSent(kj::Own<Outgoing> outgoing);

  SocketPort& _port;
  FrameReader _frames;
  const kj::Maybe<kj::Duration> _messageTime;
  kj::Maybe<kj::TimePoint> _messageEnd;  // when the message under way must be complete
  bool _drained = true;                  // the socket had less than was asked for
  std::uint64_t _received = 0;           // bytes
  std::deque<Passed> _passed;            // of messages that next() has not given
  bool _tooManyDescriptors = false;      // at once, so that some are lost

  std::vector<kj::byte> _output;  // what waits to leave
  bool _blocked = false;          // the socket takes no more
  bool _flushesLater = false;
  kj::Own<kj::PromiseFulfiller<void>> _unblocked;  // of a write that waits
  kj::Promise<void> _writing = nullptr;
  kj::Promise<void> _laterFlush = nullptr;
};

}  // namespace corvid::wire
