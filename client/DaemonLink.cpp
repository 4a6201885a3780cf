#include "client/DaemonLink.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "client/Poll.h"
#include "client/wire/Calls.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

namespace rpc = wire::rpc;
using wire::BadMessage;
using wire::MessageBuilder;
using wire::MessageReader;

// Past it calls wait in the session's queue, which is bounded.
constexpr std::size_t mostOutputBytes = std::size_t{1} << 20;
// An answer of the daemon, with what travels around its texts.
constexpr std::size_t mostMessageBytes = limits::messageBytes + (std::size_t{1} << 20);

}  // namespace

DaemonLink::DaemonLink(Session& session, Descriptor socket)
    : Link(session), _socket(std::move(socket)) {
  MessageBuilder message;
  auto root = message.initRoot(rpc::Message::size);
  root.set(rpc::Message::which, rpc::Message::bootstrap);
  root.initStruct(rpc::Message::content, rpc::Bootstrap::size)
      .set(rpc::Bootstrap::questionId, bootstrapQuestion);
  write(message);
}

void DaemonLink::send(std::uint32_t question, const Parcel& parcel) {
  constexpr std::size_t envelope = 64;
  constexpr std::size_t wordsPerMessage = 4;
  std::size_t words = envelope;
  for (const SharedCall& call : parcel.calls) words += call->extent.words + wordsPerMessage;

  MessageBuilder message(words);
  auto root = message.initRoot(rpc::Message::size);
  root.set(rpc::Message::which, rpc::Message::call);
  auto call = root.initStruct(rpc::Message::content, rpc::Call::size);
  call.set(rpc::Call::questionId, question);
  call.set(rpc::Call::interfaceId, wire::ClientSession::id);
  call.set(rpc::Call::methodId, wire::methodOf(parcel));
  auto target = call.initStruct(rpc::Call::target, rpc::MessageTarget::size);
  target.set(rpc::MessageTarget::which, rpc::MessageTarget::isPromisedAnswer);
  target.initStruct(rpc::MessageTarget::promisedAnswer, rpc::PromisedAnswer::size)
      .set(rpc::PromisedAnswer::questionId, bootstrapQuestion);
  const auto payload = call.initStruct(rpc::Call::params, rpc::Payload::size);
  wire::encodeParameters(parcel, _session.handlers().states_changed != nullptr, payload);

  const auto& file = parcel.calls.front()->request.file;
  if (file) {
    std::uint32_t id = ownObject + 1;
    while (_exports.contains(id)) ++id;
    _exports[id] = {file, 1};
    _fileOfQuestion[question] = id;
    auto capability = payload.initList(rpc::Payload::capTable, 1, rpc::CapDescriptor::size)[0];
    capability.set(rpc::CapDescriptor::which, rpc::CapDescriptor::isSenderHosted);
    capability.set(rpc::CapDescriptor::senderHosted, id);
    // The first of the message's descriptors, on the wire against the field's default.
    capability.set(rpc::CapDescriptor::attachedFd, rpc::CapDescriptor::noFd);
  }
  write(message, file);
}

bool DaemonLink::takesMore() const { return _outputBytes < mostOutputBytes; }

void DaemonLink::write(MessageBuilder& message, std::shared_ptr<UploadedFile> file) {
  tellFinished();
  queue(message.finished(), std::move(file));
}

void DaemonLink::tellFinished() {
  _untoldAnswers = 0;
  if (!_untold.empty()) queue(std::exchange(_untold, {}), nullptr);
}

void DaemonLink::queue(std::string_view bytes, std::shared_ptr<UploadedFile> file) {
  _outputBytes += bytes.size();
  // Small messages leave together; one with a file alone, so that it is clear whose that is.
  const bool joins =
      !file && !_output.empty() && !_output.back().file && _output.back().bytes.size() < readBytes;
  if (joins)
    _output.back().bytes += bytes;
  else
    _output.push_back({std::string(bytes), std::move(file)});
}

bool DaemonLink::sendFirst() {
  const Outgoing& first = _output.front();
  iovec bytes{const_cast<char*>(first.bytes.data()) + _firstSent, first.bytes.size() - _firstSent};
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  if (first.file && _firstSent == 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = first.file->descriptor();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  ssize_t sent = 0;
  do sent = sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    // What is left to read of a daemon that is gone still counts.
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EPIPE) lose();
    return false;
  }
  _firstSent += static_cast<std::size_t>(sent);
  _outputBytes -= static_cast<std::size_t>(sent);
  if (_firstSent < first.bytes.size()) return true;
  _output.pop_front();
  _firstSent = 0;
  return true;
}

bool DaemonLink::leaveNow() {
  while (!_output.empty() && sendFirst()) {
  }
  return _output.empty();
}

void DaemonLink::turn(Session::Time until, bool hostIsBusy) {
  leaveNow();
  if (isLost()) return;
  const short events = static_cast<short>(_output.empty() ? POLLIN : POLLIN | POLLOUT);
  pollfd ready[2] = {{_session.news().descriptor(), POLLIN, 0},
                     {hostIsBusy ? -1 : _socket.get(), events, 0}};
  if (whileOthersSend([&] { return poll(ready, 2, millisecondsTo(until)); }) <= 0) return;
  if (ready[0].revents != 0) _session.news().drain();
  if ((ready[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) read();
}

void DaemonLink::read() {
  ssize_t received = 0;
  do received = recv(_socket.get(), _space.get(), readBytes, MSG_DONTWAIT);
  while (received < 0 && errno == EINTR);
  if (received == 0 || (received < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) return lose();
  if (received < 0) return;
  const std::string_view came(_space.get(), static_cast<std::size_t>(received));
  try {
    if (_input.empty()) {
      _input = takeMessages(came);
    } else {
      _input += came;
      const std::string_view left = takeMessages(_input);
      _input.erase(0, _input.size() - left.size());
    }
  } catch (const BadMessage&) {
    return lose();  // what comes after that cannot be told apart
  }
  if (_input.empty() && _input.capacity() > 4 * readBytes) _input.shrink_to_fit();
}

std::string_view DaemonLink::takeMessages(std::string_view bytes) {
  while (!isLost()) {
    const auto size = MessageReader::sizeOf(bytes, mostMessageBytes);
    if (!size || *size > bytes.size()) break;
    received(MessageReader(bytes.substr(0, *size)).root(), *size);
    bytes.remove_prefix(*size);
  }
  return bytes;
}

}  // namespace corvid::library
