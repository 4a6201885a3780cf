#include "client/wire/Calls.h"

#include <string>
#include <utility>

#include "client/wire/Values.h"

namespace corvid::library::wire {

namespace {

using C = ClientSession;

void encodeMessages(const Parcel& parcel, MessageBuilder::Struct payload) {
  auto parameters = payload.initStruct(rpc::Payload::content, C::SendMessagesP::size);
  const auto messages =
      parameters.initList(C::SendMessagesP::messages, parcel.calls.size(), Message::size);
  for (std::size_t i = 0; i < parcel.calls.size(); ++i) {
    const Call& call = *parcel.calls[i];
    MessageBuilder::Struct message = messages[i];
    message.set(Message::replyWanted, call.completion.wantsReply());
    message.set(Message::reasonWanted, call.completion.wantsReply());
    if (call.request.operation == CORVID_OPERATION_SEND_MESSAGE) {
      message.set(Message::which, Message::isEvent);
      message.set(Message::category, call.request.category);
      message.set(Message::type, call.request.type);
    } else {
      message.set(Message::which, Message::isDictionary);
    }
    encode(call.request.content, message, Message::content);
  }
}

// Of a call with the parameters P, which say whether a reply is wanted.
template <class P>
MessageBuilder::Struct initParameters(const Call& call, MessageBuilder::Struct payload) {
  MessageBuilder::Struct parameters = payload.initStruct(rpc::Payload::content, P::size);
  const bool replyWanted = call.completion.wantsReply();
  parameters.set(P::replyWanted, replyWanted);
  if constexpr (requires { P::reportWanted; }) parameters.set(P::reportWanted, replyWanted);
  if constexpr (requires { P::reasonWanted; }) parameters.set(P::reasonWanted, replyWanted);
  return parameters;
}

void encodeSessionInfo(const Request& request, bool hearsOfStates, MessageBuilder::Struct payload) {
  using P = C::SetSessionInfoP;
  MessageBuilder::Struct parameters = payload.initStruct(rpc::Payload::content, P::size);
  encode(request.sessionInfo, parameters, P::sessionInfo);
  encode(request.userInfo, parameters, P::userInfo);
  encode(request.array, parameters, P::frameworksToCheck);
  parameters.set(P::hasAggregationBlock, request.hasAggregationBlock);
  parameters.set(P::changesWanted, hearsOfStates);
}

void encodeSingleMessage(const Call& call, MessageBuilder::Struct payload) {
  using P = C::SendSingleMessageP;
  auto parameters = initParameters<P>(call, payload);
  parameters.set(P::category, call.request.category);
  parameters.set(P::type, call.request.type);
  encode(call.request.sessionInfo, parameters, P::sessionInfo);
  encode(call.request.userInfo, parameters, P::userInfo);
  encode(call.request.content, parameters, P::payload);
}

Answer textAnswer(MessageReader::Struct result) {
  Answer answer;
  const bool isReasoned = result.get(TextResult::isReasoned);
  if (isReasoned) answer.disposition = CORVID_DISPOSITION_TAKEN;
  switch (result.get(TextResult::which)) {
    case TextResult::isNone: break;
    case TextResult::isText: answer.text = ValueDecoder().text(result, TextResult::content); break;
    case TextResult::isDropped: {
      const auto dropped = result.structAt(TextResult::content);
      answer.disposition = CORVID_DISPOSITION_DROPPED;
      answer.reason = ValueDecoder().text(dropped, Dropped::reason);
      answer.text = ValueDecoder().text(dropped, Dropped::text);
      break;
    }
    default: answer.isAnswered = false;
  }
  return answer;
}

States decodeReport(MessageReader::Struct report) {
  ValueDecoder decoder;
  States states;
  states.reason = decoder.text(report, StatesReport::reason);
  const auto backends = report.listAt(StatesReport::backends);
  for (std::size_t i = 0; i < backends.size(); ++i) {
    const MessageReader::Struct backend = backends[i];
    states.backends.push_back({decoder.text(backend, BackendReport::name).value_or(""),
                               decoder.text(backend, BackendReport::state).value_or(""),
                               decoder.text(backend, BackendReport::reason).value_or("")});
  }
  states.reporting = decoder.array(report, StatesReport::states);
  return states;
}

Answer statesAnswer(MessageReader::Struct results) {
  Answer answer;
  answer.isAnswered = results.get(StatesAnswer::answered);
  if (results.get(StatesAnswer::which) == StatesAnswer::isReport) {
    answer.states = decodeReport(results.structAt(StatesAnswer::content));
    answer.reporting = answer.states->reporting;
  } else {
    answer.reporting = ValueDecoder().array(results, StatesAnswer::content);
  }
  return answer;
}

std::optional<Answer::Failure> failureIn(MessageReader::Struct results, Pointer at) {
  if (!results.has(at)) return std::nullopt;
  const auto error = results.structAt(at);
  ValueDecoder decoder;
  return Answer::Failure{decoder.text(error, Error::domain).value_or(""), error.get(Error::code),
                         decoder.text(error, Error::description).value_or("")};
}

Answer uploadAnswer(MessageReader::Struct results) {
  Answer answer;
  answer.isAnswered = results.get(C::UploadR::answered);
  answer.success = results.get(C::UploadR::success);
  answer.failure = failureIn(results, C::UploadR::error);
  return answer;
}

}  // namespace

std::uint16_t methodOf(const Parcel& parcel) {
  switch (parcel.calls.front()->request.operation) {
    case CORVID_OPERATION_SET_SESSION_INFO: return C::SetSessionInfoP::method;
    case CORVID_OPERATION_START_CONFIG: return C::StartConfigP::method;
    case CORVID_OPERATION_FETCH_STATES: return C::FetchStatesP::method;
    case CORVID_OPERATION_FETCH_DISPLAY_URL: return C::FetchDisplayURLP::method;
    case CORVID_OPERATION_SEND_MESSAGE:
    case CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY: return C::SendMessagesP::method;
    case CORVID_OPERATION_FLUSH: return C::FlushP::method;
    case CORVID_OPERATION_FINISH: return C::FinishP::method;
    case CORVID_OPERATION_UPLOAD_FILE: return C::UploadFileP::method;
    case CORVID_OPERATION_UPLOAD_LOG_DATA: return C::UploadLogDataP::method;
    case CORVID_OPERATION_SEND_SINGLE_MESSAGE: return C::SendSingleMessageP::method;
  }
  return 0;
}

void encodeParameters(const Parcel& parcel, bool hearsOfStates, MessageBuilder::Struct payload) {
  const Call& call = *parcel.calls.front();
  switch (call.request.operation) {
    case CORVID_OPERATION_SET_SESSION_INFO:
      encodeSessionInfo(call.request, hearsOfStates, payload);
      break;
    case CORVID_OPERATION_START_CONFIG: initParameters<C::StartConfigP>(call, payload); break;
    case CORVID_OPERATION_FETCH_STATES:
      encode(call.request.userInfo, initParameters<C::FetchStatesP>(call, payload),
             C::FetchStatesP::userInfo);
      break;
    case CORVID_OPERATION_FETCH_DISPLAY_URL:
      initParameters<C::FetchDisplayURLP>(call, payload);
      break;
    case CORVID_OPERATION_SEND_MESSAGE:
    case CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY: encodeMessages(parcel, payload); break;
    case CORVID_OPERATION_FLUSH: initParameters<C::FlushP>(call, payload); break;
    case CORVID_OPERATION_FINISH: initParameters<C::FinishP>(call, payload); break;
    case CORVID_OPERATION_UPLOAD_FILE: {
      auto parameters = initParameters<C::UploadFileP>(call, payload);
      parameters.setText(C::UploadFileP::fileURL, call.request.fileURL);
      // Without a file the daemon hears of the URL all the same, and refuses it.
      if (call.request.file) parameters.setCapability(C::UploadFileP::file, 0);
      break;
    }
    case CORVID_OPERATION_UPLOAD_LOG_DATA:
      encode(call.request.array, initParameters<C::UploadLogDataP>(call, payload),
             C::UploadLogDataP::logData);
      break;
    case CORVID_OPERATION_SEND_SINGLE_MESSAGE: encodeSingleMessage(call, payload); break;
  }
}

std::vector<Answer> decodeResults(const Parcel& parcel, MessageReader::Struct results) {
  std::vector<Answer> answers;
  switch (parcel.calls.front()->request.operation) {
    case CORVID_OPERATION_SET_SESSION_INFO: answers.emplace_back(); break;
    case CORVID_OPERATION_START_CONFIG:
    case CORVID_OPERATION_FETCH_STATES: answers.push_back(statesAnswer(results)); break;
    case CORVID_OPERATION_SEND_MESSAGE:
    case CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY: {
      const auto each = results.listAt(C::SendMessagesR::results);
      for (std::size_t i = 0; i < each.size() && i < parcel.calls.size(); ++i)
        answers.push_back(textAnswer(each[i]));
      break;
    }
    case CORVID_OPERATION_FETCH_DISPLAY_URL:
    case CORVID_OPERATION_FINISH:
    case CORVID_OPERATION_SEND_SINGLE_MESSAGE:
      answers.push_back(textAnswer(results.structAt(C::TextR::result)));
      break;
    case CORVID_OPERATION_FLUSH:
      answers.push_back(textAnswer(results.structAt(C::FlushR::result)));
      answers.back().failure = failureIn(results, C::FlushR::error);
      break;
    case CORVID_OPERATION_UPLOAD_FILE:
    case CORVID_OPERATION_UPLOAD_LOG_DATA: answers.push_back(uploadAnswer(results)); break;
  }
  return answers;
}

std::vector<library::Delivery> decodeDeliveries(MessageReader::Struct parameters) {
  std::vector<library::Delivery> deliveries;
  const auto each = parameters.listAt(ClientSessionReply::SendMessagesToClientP::deliveries);
  for (std::size_t i = 0; i < each.size(); ++i) {
    const MessageReader::Struct source = each[i];
    library::Delivery delivery{.timestamp = source.get(wire::Delivery::timestamp),
                               .category = source.get(wire::Delivery::category),
                               .type = source.get(wire::Delivery::type)};
    try {
      delivery.message = ValueDecoder().dictionary(source, wire::Delivery::message);
      delivery.payload = ValueDecoder().dictionary(source, wire::Delivery::payload);
    } catch (const BadMessage&) {
      continue;  // not something that this library knows; the next one may be
    }
    deliveries.push_back(std::move(delivery));
  }
  return deliveries;
}

States decodeStatesChange(MessageReader::Struct parameters) {
  return decodeReport(parameters.structAt(ClientSessionReply::StatesChangedP::report));
}

}  // namespace corvid::library::wire
