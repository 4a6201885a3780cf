#include "protocol/wire/MessageSocket.h"

#include <fmt/format.h>
#include <kj/debug.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "base/LittleEndian.h"
#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid::wire {

namespace {

using Segments = kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>;

// Larger messages are not gathered but written from where they are.
constexpr std::size_t outputBytes = 16384;

// Between two looks whether there is memory for a message.
constexpr kj::Duration heldBackPause = 20 * kj::MILLISECONDS;

kj::Exception failure(const std::string& rule) {
  return {kj::Exception::Type::FAILED, __FILE__, __LINE__, kj::heapString(rule.c_str())};
}

std::size_t bytesOf(Segments segments) {
  std::size_t words = segments.size() / 2 + 1;
  for (const auto segment : segments) words += segment.size();
  return words * sizeof(capnp::word);
}

// The number of segments less one, the size of each, and a zero where that makes an odd number.
std::vector<char> headerOf(Segments segments) {
  std::vector<char> header((segments.size() / 2 + 1) * sizeof(capnp::word));
  char* at = header.data();
  const auto add = [&](std::size_t number) {
    storeLittle(at, static_cast<std::uint32_t>(number));
    at += sizeof(std::uint32_t);
  };
  add(segments.size() - 1);
  for (const auto segment : segments) add(segment.size());
  return header;
}

}  // namespace

// Bytes on their way into the socket: gathered messages, or one that is large or has descriptors.
class MessageSocket::Outgoing {
 public:
  explicit Outgoing(std::vector<kj::byte> gathered) : _gathered(std::move(gathered)) {
    _pieces.push_back({_gathered.data(), _gathered.size()});
  }
  Outgoing(Segments segments, kj::ArrayPtr<const int> descriptors) : _header(headerOf(segments)) {
    if (descriptors.size() > 0) attach(descriptors);
    _pieces.reserve(segments.size() + 1);
    _pieces.push_back({_header.data(), _header.size()});
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
      message.msg_control = _control.data();
      message.msg_controllen = _control.size();
      const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
        kj::throwFatalException(KJ_EXCEPTION(DISCONNECTED, "the peer is gone"));
      }
      _control.clear();
      advance(static_cast<std::size_t>(sent));
    }
    return true;
  }

 private:
  static constexpr std::size_t mostPieces = 1024;  // IOV_MAX

  void attach(kj::ArrayPtr<const int> descriptors) {
    const std::size_t bytes = descriptors.size() * sizeof(int);
    _control.resize(CMSG_SPACE(bytes));
    cmsghdr header{};
    header.cmsg_level = SOL_SOCKET;
    header.cmsg_type = SCM_RIGHTS;
    header.cmsg_len = CMSG_LEN(bytes);
    std::memcpy(_control.data(), &header, sizeof header);
    std::memcpy(_control.data() + CMSG_LEN(0), descriptors.begin(), bytes);
  }

  void advance(std::size_t sent) {
    while (_next < _pieces.size() && sent >= _pieces[_next].iov_len)
      sent -= _pieces[_next++].iov_len;
    if (_next == _pieces.size()) return;
    iovec& piece = _pieces[_next];
    piece.iov_base = static_cast<char*>(piece.iov_base) + sent;
    piece.iov_len -= sent;
  }

  std::vector<kj::byte> _gathered;
  std::vector<char> _header;
  std::vector<char> _control;  // descriptors that have not left
  std::vector<iovec> _pieces;
  std::size_t _next = 0;
};

MessageSocket::Received MessageSocket::receive(bool takesDescriptors) {
  kj::ArrayPtr<kj::byte> space = _frames.space();
  iovec bytes{space.begin(), space.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(limits::descriptorsPerMessage * sizeof(int))>
      control;
  for (;;) {
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (takesDescriptors) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
    }
    const ssize_t received = recvmsg(_port.socket(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received > 0) {
      _drained = static_cast<std::size_t>(received) < space.size();
      _received += static_cast<std::size_t>(received);
      _frames.filled(static_cast<std::size_t>(received));
      if (message.msg_controllen > 0) keepDescriptors(message);
      return Received::something;
    }
    if (received < 0 && errno == EINTR) continue;
    if (received == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return Received::end;
    _drained = true;
    return Received::nothing;
  }
}

// The system ends what one call receives with the bytes that descriptors came with, so these belong
// to the message of the last of the bytes.
void MessageSocket::keepDescriptors(const msghdr& message) {
  // There may be more bytes.
  _drained = false;
  std::size_t count = 0;
  for (const cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(header))) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    for (const unsigned char* at = CMSG_DATA(header);
         at < reinterpret_cast<const unsigned char*>(header) + header->cmsg_len;
         at += sizeof(int)) {
      int descriptor;
      std::memcpy(&descriptor, at, sizeof descriptor);
      _passed.push_back({_received, kj::AutoCloseFd(descriptor)});
      ++count;
    }
  }
  // Where fewer came than there is room for, this process has no descriptor left.
  if ((message.msg_flags & MSG_CTRUNC) != 0 && count >= limits::descriptorsPerMessage)
    _tooManyDescriptors = true;
}

kj::Maybe<capnp::MessageReaderAndFds> MessageSocket::next(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace) {
  const auto checkCount = [this](std::size_t count, std::size_t most) {
    if (count > most || _tooManyDescriptors)
      throw BrokenRule(fmt::format("a message with more than {} descriptors", most));
  };
  kj::Own<capnp::MessageReader> message = _frames.next();
  if (message.get() == nullptr) {
    // All that is kept came with the message that is not complete.
    checkCount(_passed.size(), limits::descriptorsPerMessage);
    return nullptr;
  }
  std::size_t count = 0;
  for (; !_passed.empty() && _passed.front().position <= _frames.position(); _passed.pop_front()) {
    checkCount(count + 1, descriptorSpace.size());
    descriptorSpace[count++] = kj::mv(_passed.front().descriptor);
  }
  return capnp::MessageReaderAndFds{kj::mv(message), descriptorSpace.slice(0, count)};
}

kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> MessageSocket::tryReadMessage(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace, capnp::ReaderOptions,
    kj::ArrayPtr<capnp::word>) {
  _messageEnd = nullptr;
  return readOn(descriptorSpace);
}

kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> MessageSocket::readOn(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace) {
  using Incoming = kj::Maybe<capnp::MessageReaderAndFds>;
  const bool takesDescriptors = descriptorSpace.size() > 0;
  flush();
  do {
    try {
      if (Incoming message = next(descriptorSpace); message != nullptr) return kj::mv(message);
    } catch (const BrokenRule& rule) {
      return failure(rule.what());
    }
    if (_frames.isHeldBack())
      return _port.after(heldBackPause).then([this, descriptorSpace] {
        return readOn(descriptorSpace);
      });
    if (_drained) break;
  } while (receive(takesDescriptors) == Received::something);
  return whenThereIsMore().then([this, descriptorSpace]() -> kj::Promise<Incoming> {
    if (receive(descriptorSpace.size() > 0) == Received::end) return Incoming();
    return readOn(descriptorSpace);
  });
}

kj::Promise<void> MessageSocket::whenThereIsMore() {
  KJ_IF_MAYBE (time, _messageTime) {
    if (_frames.isUnfinished()) {
      const kj::TimePoint now = kj::systemPreciseMonotonicClock().now();
      const kj::TimePoint end = _messageEnd.orDefault(now + *time);
      _messageEnd = end;
      const kj::Duration left = kj::max(end - now, 0 * kj::SECONDS);
      return _port.whenReadable().exclusiveJoin(
          _port.after(left).then([seconds = *time / kj::SECONDS]() -> kj::Promise<void> {
            return failure(fmt::format("a message that was not complete after {} s", seconds));
          }));
    }
  }
  return _port.whenReadable();
}

kj::Promise<void> MessageSocket::writeMessage(kj::ArrayPtr<const int> descriptors,
                                              Segments segments) {
  if (_blocked) {
    auto pair = kj::newPromiseAndFulfiller<void>();
    _unblocked = kj::mv(pair.fulfiller);
    return pair.promise.then(
        [this, descriptors, segments] { return writeMessage(descriptors, segments); });
  }
  if (descriptors.size() == 0 && _output.size() + bytesOf(segments) <= outputBytes) {
    gather(segments);
    return kj::READY_NOW;
  }
  if (!_output.empty()) {
    flush();
    return writeMessage(descriptors, segments);
  }
  return send(kj::heap<Outgoing>(segments, descriptors));
}

kj::Promise<void> MessageSocket::send(kj::Own<Outgoing> outgoing) {
  if (outgoing->writeTo(_port.socket())) return kj::READY_NOW;
  _blocked = true;
  return untilSent(kj::mv(outgoing))
      .then(
          [this] {
            _blocked = false;
            if (auto waiting = kj::mv(_unblocked); waiting.get() != nullptr) waiting->fulfill();
          },
          [this](kj::Exception&& exception) {
            _blocked = false;
            if (auto waiting = kj::mv(_unblocked); waiting.get() != nullptr)
              waiting->reject(kj::cp(exception));
            kj::throwFatalException(kj::mv(exception));
          });
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
  const std::vector<char> header = headerOf(segments);
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
    _writing = send(kj::heap<Outgoing>(std::exchange(_output, {}))).eagerlyEvaluate(nullptr);
  } catch (const kj::Exception&) {
    // Reading finds that the peer is gone.
  }
}

kj::Promise<void> MessageSocket::untilSent(kj::Own<Outgoing> outgoing) {
  return _port.whenWritable().then(
      [this, outgoing = kj::mv(outgoing)]() mutable -> kj::Promise<void> {
        if (outgoing->writeTo(_port.socket())) return kj::READY_NOW;
        return untilSent(kj::mv(outgoing));
      });
}

kj::Promise<void> MessageSocket::end() {
  flush();
  shutdown(_port.socket(), SHUT_WR);
  return kj::READY_NOW;
}

}  // namespace corvid::wire
