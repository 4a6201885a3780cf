// Cap'n Proto messages over a connected Unix stream socket.
//
// Writing never raises SIGPIPE. Reading takes what the socket holds in one system call, however
// many messages that is. Where the stream breaks a rule of FrameReader, reading fails with its
// text; a peer that is gone, also in the middle of a message, is an end of stream.
//
// Threads: the event loop's.
#pragma once

#include <capnp/serialize-async.h>

#include <cstddef>
#include <vector>

#include "protocol/wire/FrameReader.h"
#include "protocol/wire/SocketPort.h"

namespace corvid::wire {

class MessageSocket final : public capnp::MessageStream {
 public:
  using capnp::MessageStream::writeMessage;
  using capnp::MessageStream::writeMessages;

  // `port` is borrowed, and with it the socket.
  explicit MessageSocket(SocketPort& port) : _port(port) {}

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

  Received receive();
  bool sendOutput();
  void gather(kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments);
  void unblock();
  kj::Promise<void> untilOutputSent();
  kj::Promise<void> untilSent(kj::Own<Outgoing> outgoing);

  SocketPort& _port;
  FrameReader _frames;
  bool _drained = true;  // the socket had less than was asked for

  std::vector<kj::byte> _output;  // what waits to leave
  std::size_t _sent = 0;          // bytes of it that have left
  bool _blocked = false;          // the socket takes no more
  bool _flushesLater = false;
  kj::Own<kj::PromiseFulfiller<void>> _unblocked;  // of a write that waits
  kj::Promise<void> _writing = nullptr;
  kj::Promise<void> _laterFlush = nullptr;
};

}  // namespace corvid::wire
