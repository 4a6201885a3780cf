// What the daemon says in the RPC protocol, and what it is answered.
#include <utility>

#include "client/DaemonLink.h"
#include "client/wire/Calls.h"

namespace corvid::library {

namespace {

namespace rpc = wire::rpc;
using wire::BadMessage;
using wire::MessageBuilder;
using wire::MessageReader;

int errorOf(MessageReader::Struct exception) {
  switch (exception.get(rpc::Exception::type)) {
    case rpc::Exception::disconnected: return CORVID_ERROR_CONNECTION_LOST;
    case rpc::Exception::unimplemented: return CORVID_ERROR_NOT_SUPPORTED;
    default: return CORVID_ERROR_BAD_REPLY;
  }
}

// Begins the answer to a question of the daemon.
MessageBuilder::Struct initReturn(MessageBuilder& message, std::uint32_t question,
                                  rpc::Return::Which which) {
  auto root = message.initRoot(rpc::Message::size);
  root.set(rpc::Message::which, rpc::Message::return_);
  auto answer = root.initStruct(rpc::Message::content, rpc::Return::size);
  answer.set(rpc::Return::answerId, question);
  answer.set(rpc::Return::which, which);
  return answer;
}

}  // namespace

void DaemonLink::received(MessageReader::Struct message, std::size_t bytes) {
  const auto content = message.structAt(rpc::Message::content);
  switch (message.get(rpc::Message::which)) {
    case rpc::Message::call: return receivedCall(content);
    case rpc::Message::return_: return receivedReturn(content, bytes);
    case rpc::Message::bootstrap: return receivedBootstrap(content.get(rpc::Bootstrap::questionId));
    case rpc::Message::release:
      return release(content.get(rpc::Release::id), content.get(rpc::Release::referenceCount));
    case rpc::Message::abort: return lose();
    // The answers that it finishes hold nothing; what else there is in the protocol is for objects
    // that neither side has.
    default: return;
  }
}

void DaemonLink::receivedReturn(MessageReader::Struct answer, std::size_t bytes) {
  const std::uint32_t question = answer.get(rpc::Return::answerId);
  const bool hasResults = answer.get(rpc::Return::which) == rpc::Return::isResults;
  if (question == bootstrapQuestion) {
    if (!hasResults) lose();
    return;
  }
  const Parcel* const parcel = parcelOf(question);
  if (parcel == nullptr) throw BadMessage("an answer that nobody waits for");
  if (const auto file = _fileOfQuestion.extract(question);
      !file.empty() && !answer.get(rpc::Return::keepParamCaps))
    release(file.mapped(), 1);
  finish(question, bytes);
  if (!hasResults) {
    const bool isException = answer.get(rpc::Return::which) == rpc::Return::isException;
    const auto exception = answer.structAt(rpc::Return::exception);
    return fail(question, isException ? errorOf(exception) : CORVID_ERROR_BAD_REPLY);
  }
  std::vector<Answer> answers;
  try {
    const auto payload = answer.structAt(rpc::Return::results);
    answers = wire::decodeResults(*parcel, payload.structAt(rpc::Payload::content));
  } catch (const BadMessage&) {
    return fail(question, CORVID_ERROR_BAD_REPLY);
  }
  this->answer(question, std::move(answers));
}

void DaemonLink::finish(std::uint32_t question, std::size_t bytes) {
  MessageBuilder message;
  auto root = message.initRoot(rpc::Message::size);
  root.set(rpc::Message::which, rpc::Message::finish);
  root.initStruct(rpc::Message::content, rpc::Finish::size).set(rpc::Finish::questionId, question);
  _untold += message.finished();
  if (++_untoldAnswers >= mostUntoldAnswers || bytes > mostUntoldBytes) tellFinished();
}

void DaemonLink::receivedBootstrap(std::uint32_t question) {
  MessageBuilder message;
  auto answer = initReturn(message, question, rpc::Return::isResults);
  const auto payload = answer.initStruct(rpc::Return::results, rpc::Payload::size);
  payload.setCapability(rpc::Payload::content, 0);
  auto capability = payload.initList(rpc::Payload::capTable, 1, rpc::CapDescriptor::size)[0];
  capability.set(rpc::CapDescriptor::which, rpc::CapDescriptor::isSenderHosted);
  capability.set(rpc::CapDescriptor::senderHosted, ownObject);
  write(message);
}

void DaemonLink::receivedCall(MessageReader::Struct call) {
  const std::uint32_t question = call.get(rpc::Call::questionId);
  MessageBuilder message;
  if (perform(call)) {
    auto answer = initReturn(message, question, rpc::Return::isResults);
    answer.initStruct(rpc::Return::results, rpc::Payload::size)
        .initStruct(rpc::Payload::content, {0, 0});
  } else {
    auto answer = initReturn(message, question, rpc::Return::isException);
    auto exception = answer.initStruct(rpc::Return::exception, rpc::Exception::size);
    exception.set(rpc::Exception::type, rpc::Exception::unimplemented);
    exception.setText(rpc::Exception::reason, "not known to this client library");
  }
  write(message);
}

bool DaemonLink::perform(MessageReader::Struct call) {
  const auto target = call.structAt(rpc::Call::target);
  const std::uint64_t interface = call.get(rpc::Call::interfaceId);
  const std::uint16_t method = call.get(rpc::Call::methodId);
  const auto parameters = call.structAt(rpc::Call::params).structAt(rpc::Payload::content);
  // A promised answer can only be that to the question for the client's object.
  const bool isOwn = target.get(rpc::MessageTarget::which) != rpc::MessageTarget::isImportedCap ||
                     target.get(rpc::MessageTarget::importedCap) == ownObject;
  if (!isOwn) {
    const auto exported = _exports.find(target.get(rpc::MessageTarget::importedCap));
    if (exported == _exports.end() || interface != wire::FileGrant::id ||
        method != wire::FileGrant::remove)
      return false;
    exported->second.file->remove();
    return true;
  }
  if (interface != wire::ClientSessionReply::id) return false;
  if (method == wire::ClientSessionReply::SendMessagesToClientP::method) {
    for (Delivery& delivery : wire::decodeDeliveries(parameters)) deliver(std::move(delivery));
    return true;
  }
  if (method == wire::ClientSessionReply::StatesChangedP::method) {
    tellStates(wire::decodeStatesChange(parameters));
    return true;
  }
  return false;
}

void DaemonLink::release(std::uint32_t id, std::uint32_t references) {
  const auto exported = _exports.find(id);
  if (exported == _exports.end()) return;
  if (references >= exported->second.references)
    _exports.erase(exported);
  else
    exported->second.references -= references;
}

}  // namespace corvid::library
