#include "protocol/wire/MessageSocket.h"

#include <kj/debug.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "protocol/wire/ValueCodec.h"

namespace corvid::wire {

namespace {

using Segments = kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>;

static_assert(std::endian::native == std::endian::little, "numbers go as they are");

// Larger messages are not gathered but written from where they are.
constexpr std::size_t outputBytes = 16384;

kj::Exception peerIsGone() { return KJ_EXCEPTION(DISCONNECTED, "the peer is gone"); }

std::size_t bytesOf(Segments segments) {
  std::size_t words = segments.size() / 2 + 1;
  for (const auto segment : segments) words += segment.size();
  return words * sizeof(capnp::word);
}

// The number of segments less one, the size of each, and a zero where that makes an odd number.
std::vector<std::uint32_t> headerOf(Segments segments) {
  std::vector<std::uint32_t> header((segments.size() / 2 + 1) * 2);
  header[0] = static_cast<std::uint32_t>(segments.size() - 1);
  for (std::size_t i = 0; i < segments.size(); ++i)
    header[i + 1] = static_cast<std::uint32_t>(segments[i].size());
  return header;
}

// How much the socket took of `message`; nothing where it takes none now.
std::optional<std::size_t> sendSome(int socket, const msghdr& message) {
  for (;;) {
    const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (errno == EAGAIN || errno == EWOULDBLOCK) return std::nullopt;
    if (errno != EINTR) kj::throwFatalException(peerIsGone());
  }
}

}  // namespace

// A large message whose first bytes may have been written.
class MessageSocket::Outgoing {
 public:
  explicit Outgoing(Segments segments) : _header(headerOf(segments)) {
    _pieces.reserve(segments.size() + 1);
    _pieces.push_back({_header.data(), _header.size() * sizeof _header[0]});
    for (const auto segment : segments) {
      const auto bytes = segment.asBytes();
      _pieces.push_back({const_cast<kj::byte*>(bytes.begin()), bytes.size()});
    }
  }
  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  // Writes as much as the socket takes; true when all is written.
  bool writeTo(int socket) {
    while (_next < _pieces.size()) {
      msghdr message{};
      message.msg_iov = &_pieces[_next];
      message.msg_iovlen = std::min(_pieces.size() - _next, mostPieces);
      const std::optional<std::size_t> sent = sendSome(socket, message);
      if (!sent) return false;
      advance(*sent);
    }
    return true;
  }

 private:
  static constexpr std::size_t mostPieces = 1024;  // IOV_MAX

  void advance(std::size_t sent) {
    while (_next < _pieces.size() && sent >= _pieces[_next].iov_len)
      sent -= _pieces[_next++].iov_len;
    if (_next == _pieces.size()) return;
    iovec& piece = _pieces[_next];
    piece.iov_base = static_cast<char*>(piece.iov_base) + sent;
    piece.iov_len -= sent;
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
  flush();
  do {
    try {
      if (kj::Own<capnp::MessageReader> message = _frames.next(); message.get() != nullptr)
        return Incoming(capnp::MessageReaderAndFds{kj::mv(message), nullptr});
    } catch (const BrokenRule& rule) {
      return kj::Exception(kj::Exception::Type::FAILED, __FILE__, __LINE__,
                           kj::heapString(rule.what()));
    }
    if (_drained) break;
  } while (receive() == Received::something);
  return _port.whenReadable().then(
      [this, descriptorSpace, options, scratchSpace]() -> kj::Promise<Incoming> {
        if (receive() == Received::end) return Incoming();
        return tryReadMessage(descriptorSpace, options, scratchSpace);
      });
}

kj::Promise<void> MessageSocket::writeMessage(kj::ArrayPtr<const int> descriptors,
                                              Segments segments) {
  KJ_REQUIRE(descriptors.size() == 0, "descriptors are not passed on this connection");
  if (_blocked) {
    auto pair = kj::newPromiseAndFulfiller<void>();
    _unblocked = kj::mv(pair.fulfiller);
    return pair.promise.then([this, segments] { return writeMessage(nullptr, segments); });
  }
  if (_output.size() + bytesOf(segments) <= outputBytes) {
    gather(segments);
    return kj::READY_NOW;
  }
  if (!_output.empty()) {
    flush();
    return writeMessage(nullptr, segments);
  }
  auto outgoing = kj::heap<Outgoing>(segments);
  if (outgoing->writeTo(_port.socket())) return kj::READY_NOW;
  _blocked = true;
  return untilSent(kj::mv(outgoing)).then([this] { unblock(); });
}

kj::Promise<void> MessageSocket::writeMessages(kj::ArrayPtr<Segments> messages) {
  kj::Promise<void> written = kj::READY_NOW;
  for (const auto message : messages)
    written = written.then([this, message] { return writeMessage(nullptr, message); });
  return written;
}

void MessageSocket::gather(Segments segments) {
  const auto append = [this](kj::ArrayPtr<const kj::byte> bytes) {
    _output.insert(_output.end(), bytes.begin(), bytes.end());
  };
  const std::vector<std::uint32_t> header = headerOf(segments);
  append(kj::arrayPtr(header.data(), header.size()).asBytes());
  for (const auto segment : segments) append(segment.asBytes());
  if (std::exchange(_flushesLater, true)) return;
  _laterFlush = kj::evalLast([this] {
                  _flushesLater = false;
                  flush();
                }).eagerlyEvaluate(nullptr);
}

void MessageSocket::flush() {
  if (_blocked || _output.empty()) return;
  try {
    if (sendOutput()) return;
  } catch (const kj::Exception&) {
    // Reading finds that the peer is gone.
    _output.clear();
    return;
  }
  _blocked = true;
  _writing = untilOutputSent().then([this] { unblock(); }).eagerlyEvaluate(nullptr);
}

bool MessageSocket::sendOutput() {
  while (_sent < _output.size()) {
    iovec rest{_output.data() + _sent, _output.size() - _sent};
    msghdr message{};
    message.msg_iov = &rest;
    message.msg_iovlen = 1;
    const std::optional<std::size_t> sent = sendSome(_port.socket(), message);
    if (!sent) return false;
    _sent += *sent;
  }
  _output.clear();
  _sent = 0;
  return true;
}

kj::Promise<void> MessageSocket::untilOutputSent() {
  return _port.whenWritable().then([this]() -> kj::Promise<void> {
    if (sendOutput()) return kj::READY_NOW;
    return untilOutputSent();
  });
}

kj::Promise<void> MessageSocket::untilSent(kj::Own<Outgoing> outgoing) {
  return _port.whenWritable().then(
      [this, outgoing = kj::mv(outgoing)]() mutable -> kj::Promise<void> {
        if (outgoing->writeTo(_port.socket())) return kj::READY_NOW;
        return untilSent(kj::mv(outgoing));
      });
}

void MessageSocket::unblock() {
  _blocked = false;
  if (auto waiting = kj::mv(_unblocked); waiting.get() != nullptr) waiting->fulfill();
}

kj::Promise<void> MessageSocket::end() {
  flush();
  shutdown(_port.socket(), SHUT_WR);
  return kj::READY_NOW;
}

}  // namespace corvid::wire
