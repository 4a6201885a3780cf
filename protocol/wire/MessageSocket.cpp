#include "protocol/wire/MessageSocket.h"

#include <kj/debug.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "protocol/wire/ValueCodec.h"

namespace corvid::wire {

namespace {

kj::Exception peerIsGone() { return KJ_EXCEPTION(DISCONNECTED, "the peer is gone"); }

}  // namespace

// A message whose first bytes may have been written.
class MessageSocket::Outgoing {
 public:
  using Segments = kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>;

  explicit Outgoing(Segments segments) {
    // Whole words: the count less one, the sizes, and a zero where that makes an odd number.
    _header.resize((segments.size() / 2 + 1) * 2);
    _header[0] = static_cast<std::uint32_t>(segments.size() - 1);
    _pieces.reserve(segments.size() + 1);
    _pieces.push_back({_header.data(), _header.size() * sizeof _header[0]});
    for (std::size_t i = 0; i < segments.size(); ++i) {
      const kj::ArrayPtr<const kj::byte> bytes = segments[i].asBytes();
      _header[i + 1] = static_cast<std::uint32_t>(segments[i].size());
      _pieces.push_back({const_cast<kj::byte*>(bytes.begin()), bytes.size()});
    }
    static_assert(std::endian::native == std::endian::little);
  }
  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  // Writes as much as the socket takes; true when all is written.
  bool writeTo(int socket) {
    while (_next < _pieces.size()) {
      msghdr message{};
      message.msg_iov = &_pieces[_next];
      message.msg_iovlen = std::min(_pieces.size() - _next, mostPieces);
      const ssize_t written = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (written >= 0) {
        advance(static_cast<std::size_t>(written));
      } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return false;
      } else if (errno != EINTR) {
        kj::throwFatalException(peerIsGone());
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t mostPieces = 1024;  // IOV_MAX

  void advance(std::size_t written) {
    while (_next < _pieces.size() && written >= _pieces[_next].iov_len)
      written -= _pieces[_next++].iov_len;
    if (_next == _pieces.size()) return;
    iovec& piece = _pieces[_next];
    piece.iov_base = static_cast<char*>(piece.iov_base) + written;
    piece.iov_len -= written;
  }

  std::vector<std::uint32_t> _header;
  std::vector<iovec> _pieces;
  std::size_t _next = 0;
};

MessageSocket::Received MessageSocket::receive() {
  kj::ArrayPtr<kj::byte> space = _frames.space();
  for (;;) {
    const ssize_t received = recv(_port.socket(), space.begin(), space.size(), MSG_DONTWAIT);
    if (received > 0) {
      _drained = static_cast<std::size_t>(received) < space.size();
      _frames.filled(static_cast<std::size_t>(received));
      return Received::something;
    }
    if (received < 0 && errno == EINTR) continue;
    if (received == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return Received::end;
    _drained = true;
    return Received::nothing;
  }
}

kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> MessageSocket::tryReadMessage(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace, capnp::ReaderOptions options,
    kj::ArrayPtr<capnp::word> scratchSpace) {
  using Incoming = kj::Maybe<capnp::MessageReaderAndFds>;
  do {
    try {
      if (kj::Own<capnp::MessageReader> message = _frames.next(); message.get() != nullptr)
        return Incoming(capnp::MessageReaderAndFds{kj::mv(message), nullptr});
    } catch (const BrokenRule& rule) {
      return KJ_EXCEPTION(FAILED, rule.what());
    }
    if (_drained) break;
  } while (receive() == Received::something);
  return _port.whenReadable().then(
      [this, descriptorSpace, options, scratchSpace]() -> kj::Promise<Incoming> {
        if (receive() == Received::end) return Incoming();
        return tryReadMessage(descriptorSpace, options, scratchSpace);
      });
}

kj::Promise<void> MessageSocket::writeMessage(
    kj::ArrayPtr<const int> descriptors,
    kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  KJ_REQUIRE(descriptors.size() == 0, "descriptors are not passed on this connection");
  return write(kj::heap<Outgoing>(segments));
}

kj::Promise<void> MessageSocket::writeMessages(
    kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) {
  kj::Promise<void> written = kj::READY_NOW;
  for (const auto message : messages)
    written = written.then([this, message] { return writeMessage(nullptr, message); });
  return written;
}

kj::Promise<void> MessageSocket::write(kj::Own<Outgoing> outgoing) {
  if (outgoing->writeTo(_port.socket())) return kj::READY_NOW;
  return _port.whenWritable().then(
      [this, outgoing = kj::mv(outgoing)]() mutable { return write(kj::mv(outgoing)); });
}

kj::Promise<void> MessageSocket::end() {
  shutdown(_port.socket(), SHUT_WR);
  return kj::READY_NOW;
}

}  // namespace corvid::wire
