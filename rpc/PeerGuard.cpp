#include "rpc/PeerGuard.h"

#include <fmt/format.h>
#include <kj/debug.h>

#include <utility>

#include "protocol/Limits.h"

namespace corvid {

using capnp::rpc::Message;

namespace {

// What the RPC system tells the client when it ends the connection.
kj::Exception failure(const std::string& rule) {
  return {kj::Exception::Type::FAILED, __FILE__, __LINE__, kj::heapString(rule.c_str())};
}

}  // namespace

void PeerGuard::fail(std::string rule) {
  if (_breach) return;
  _breach = std::move(rule);
  _broken(*_breach);
  openGate();
}

void PeerGuard::openGate() {
  if (auto gate = kj::mv(_gate); gate.get() != nullptr) gate->fulfill();
}

kj::Promise<PeerGuard::Incoming> PeerGuard::refuse(std::string rule) {
  fail(std::move(rule));
  return failure(*_breach);
}

kj::Promise<PeerGuard::Incoming> PeerGuard::tryReadMessage(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace, capnp::ReaderOptions,
    kj::ArrayPtr<capnp::word>) {
  return kj::evalLast([this, descriptorSpace] { return readWhenAllowed(descriptorSpace); });
}

kj::Promise<PeerGuard::Incoming> PeerGuard::readWhenAllowed(
    kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace) {
  if (_breach) return failure(*_breach);
  _account.messageIsDone();
  if (_toWrite > 0 || _unanswered >= limits::callsInFlight) {
    auto pair = kj::newPromiseAndFulfiller<void>();
    _gate = kj::mv(pair.fulfiller);
    return pair.promise.then([this, descriptorSpace] { return readWhenAllowed(descriptorSpace); });
  }
  return _stream.tryReadMessage(descriptorSpace)
      .then(
          [this](Incoming&& incoming) -> kj::Promise<Incoming> {
            KJ_IF_MAYBE (message, incoming) {
              try {
                const auto root = message->reader->getRoot<Message>();
                // The client says good-bye with a reason.
                if (root.isAbort()) return Incoming();
                if (auto breach = breachOf(root)) return refuse(std::move(*breach));
              } catch (const kj::Exception& exception) {
                return refuse(
                    fmt::format("a malformed message ({})", exception.getDescription().cStr()));
              }
            }
            return kj::mv(incoming);
          },
          [this](kj::Exception&& exception) -> kj::Promise<Incoming> {
            if (exception.getType() == kj::Exception::Type::DISCONNECTED) return kj::mv(exception);
            return refuse(exception.getDescription().cStr());
          });
}

std::optional<std::string> PeerGuard::breachOf(Message::Reader message) {
  std::size_t capabilities = 0;
  switch (message.which()) {
    case Message::CALL: {
      const auto call = message.getCall();
      // Kept for a later call, an answer could wait for ever.
      if (!call.getSendResultsTo().isCaller()) return "a call whose answer is not for its caller";
      // No call answers with an object; what waits for one would be kept for as long.
      if (const auto target = call.getTarget();
          target.isPromisedAnswer() &&
          !_bootstraps.contains(target.getPromisedAnswer().getQuestionId()))
        return "a call on the answer of another call";
      capabilities = call.getParams().getCapTable().size();
      if (auto breach = begin(call.getQuestionId())) return breach;
      break;
    }
    case Message::BOOTSTRAP:
      if (auto breach = begin(message.getBootstrap().getQuestionId())) return breach;
      _bootstraps.insert(message.getBootstrap().getQuestionId());
      break;
    case Message::FINISH:
      _unfinished.erase(message.getFinish().getQuestionId());
      _bootstraps.erase(message.getFinish().getQuestionId());
      break;
    case Message::RETURN:
      if (const auto answer = message.getReturn(); answer.isResults())
        capabilities = answer.getResults().getCapTable().size();
      break;
    case Message::RESOLVE:
      // Promises that stand for each other would keep the connection's state for ever.
      if (const auto resolve = message.getResolve();
          resolve.isCap() && resolve.getCap().isSenderPromise())
        return "a promise that comes to another promise";
      break;
    default: break;
  }
  if (capabilities > limits::capabilitiesPerMessage)
    return fmt::format("a message with {} capabilities", capabilities);
  return std::nullopt;
}

std::optional<std::string> PeerGuard::begin(std::uint32_t question) {
  ++_unanswered;
  _unfinished.insert(question);
  if (_unfinished.size() <= limits::unfinishedCalls) return std::nullopt;
  return fmt::format("more than {} unfinished calls", limits::unfinishedCalls);
}

void PeerGuard::inspectOutgoing(Message::Reader message) {
  if (message.isReturn() && _unanswered > 0) --_unanswered;
  // The RPC system ends the connection, over a message that made no sense at its place or because
  // the client is gone.
  if (message.isAbort() &&
      message.getAbort().getType() != capnp::rpc::Exception::Type::DISCONNECTED)
    fail(fmt::format("a message out of place ({})", message.getAbort().getReason().cStr()));
}

kj::Promise<void> PeerGuard::answerIsLate() {
  return _port.after(limits::messageTime.count() * kj::SECONDS).then([this]() -> kj::Promise<void> {
    fail(fmt::format("an answer that it has not taken after {} s", limits::messageTime.count()));
    return failure(*_breach);
  });
}

kj::Promise<void> PeerGuard::writeMessage(
    kj::ArrayPtr<const int> descriptors,
    kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  ++_toWrite;
  return write(descriptors, segments);
}

kj::Promise<void> PeerGuard::writeMessages(
    kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) {
  _toWrite += messages.size();
  kj::Promise<void> written = kj::READY_NOW;
  for (const auto message : messages)
    written = written.then([this, message] { return write(nullptr, message); });
  return written;
}

kj::Promise<void> PeerGuard::write(kj::ArrayPtr<const int> descriptors,
                                   kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  std::size_t bytes = 0;
  for (const auto segment : segments) bytes += segment.asBytes().size();
  capnp::SegmentArrayMessageReader reader(segments);
  const auto message = reader.getRoot<Message>();
  const bool isLargeAnswer = message.isReturn() && bytes > limits::largeAnswerBytes;
  inspectOutgoing(message);
  auto written = kj::evalNow([&] { return _stream.writeMessage(descriptors, segments); });
  if (isLargeAnswer) written = written.exclusiveJoin(answerIsLate());
  return written.then(
      [this] {
        --_toWrite;
        _written();
        if (_toWrite == 0) openGate();
      },
      [this](kj::Exception&& exception) {
        // The RPC system leaves it to the reading side to find that the client is gone.
        _toWrite = 0;
        openGate();
        kj::throwFatalException(kj::mv(exception));
      });
}

bool PeerGuard::hasWrittenAll(capnp::TwoPartyVatNetwork& network) const {
  // Before its version 1 the library counts the message as waiting that was just written.
  constexpr std::size_t written = CAPNP_VERSION < 1'000'000 ? 1 : 0;
  return _toWrite == 0 && network.getCurrentQueueCount() <= written;
}

}  // namespace corvid
