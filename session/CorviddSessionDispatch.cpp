// From a client's message to every backend and back, and messages outside any configured session.
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "config/MessageLog.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

// Only what arrived as a number: in a message, neither a boolean nor a text stands for one.
std::optional<std::int64_t> numberAt(const Dictionary& message, std::string_view key) {
  const Value* value = message.find(key);
  if (!value || (value->type() != Value::Type::integer && value->type() != Value::Type::real))
    return std::nullopt;
  return asInteger(value);
}

}  // namespace

// The text of the category form also stands where the dictionary form was called.
void CorviddSession::logSendMessage() const {
  logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
}

void CorviddSession::sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                             std::optional<Dictionary> payload, ResultReply reply) {
  logSendMessage();
  reply(sendMessageWithCategory(category, type, payload ? &*payload : nullptr));
}

void CorviddSession::sendMessageWithDictionary(Dictionary message, ResultReply reply) {
  logSendMessage();
  reply(sendMessageWithDictionary(message));
}

void CorviddSession::finishSessionWithReply(ResultReply reply) {
  logDebug("finishSessionWithReply: Finishing session {}", sessionID());
  reply(sendMessageWithCategory(sessionCategory, sessionFinish, nullptr));
}

std::shared_ptr<const BackendTable> CorviddSession::backendsForMessage() const {
  auto table = backends();
  if (!table) logDebug("sendMessageWithDictionary: No backends available to send message");
  return table;
}

std::optional<std::string> CorviddSession::sendMessageWithCategory(std::uint16_t category,
                                                                   std::uint16_t type,
                                                                   const Dictionary* payload) {
  const auto table = backendsForMessage();
  if (!table) return std::nullopt;
  return dispatch({category, type, payload, MessageFlag{0}}, *table);
}

std::optional<std::string> CorviddSession::sendMessageWithDictionary(const Dictionary& message) {
  const auto table = backendsForMessage();
  if (!table) return std::nullopt;
  const auto category = numberAt(message, kCorvidMessageParametersCategory);
  if (!category) {
    logDebug("sendMessageWithDictionary: Missing mandatory parameter 'category'");
    return std::nullopt;
  }
  const auto type = numberAt(message, kCorvidMessageParametersType);
  if (!type) {
    logDebug("sendMessageWithDictionary: Missing mandatory parameter 'type'");
    return std::nullopt;
  }
  const auto flag = numberAt(message, kCorvidMessageParametersFlag).value_or(0);
  return dispatch(
      {static_cast<std::uint16_t>(*category), static_cast<std::uint16_t>(*type),
       dictionaryAt(message, kCorvidMessageParametersPayload), static_cast<MessageFlag>(flag)},
      *table);
}

std::optional<std::string> CorviddSession::dispatch(const Message& message,
                                                    const BackendTable& table) {
  const TimeValue now = Platform::current().clock().now();
  aggregateMessage(message, now.asDouble());

  std::optional<std::string> reply;
  for (const auto& [key, backend] : table) {
    auto result =
        backend->sendMessage(message.payload, now, message.category, message.type, message.flag);
    if (!result) continue;
    writeToLogFile("[{} -> sendMessageWithDictionary] {}", key, *result);
    const std::string& name = backend->name();
    if (name == kCorvidBackendHTTPPost ? !result->empty()
                                       : name == kCorvidBackendDashboard && !reply)
      reply = std::move(result);
  }
  return reply;
}

void CorviddSession::internalSendMessage(const Dictionary& payload, std::uint16_t method,
                                         std::uint16_t respCode) {
  sendMessageWithCategory(method, respCode, &payload);
  logDebug("internalSendMessage: Sent internal message (method:{} respCode:{})", method, respCode);
}

void CorviddSession::sendMessageWithSessionInfo(Dictionary sessionInfo,
                                                std::optional<Dictionary> userInfo,
                                                std::uint16_t category, std::uint16_t type,
                                                std::optional<Dictionary> payload,
                                                Reply<std::string> reply) {
  const auto newSessionID = integerAt(sessionInfo, kCorvidSessionInfoSessionID);
  if (!newSessionID || !integerAt(sessionInfo, kCorvidSessionInfoClientType)) {
    logError("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo");
    return;  // the client gets no answer
  }
  setSessionID(static_cast<std::uint32_t>(*newSessionID));
  const auto info = std::make_shared<const Dictionary>(std::move(sessionInfo));
  const auto user = userInfo ? std::make_shared<const Dictionary>(*std::move(userInfo)) : nullptr;
  {
    const MutexLock lock(_lock);
    _sessionInfo = info;
  }
  receivedUserInfo(user);
  logDebug("sendMessageWithSessionInfo: Sending message with session info for session {}",
           sessionID());

  const auto found = _sessionDelegate->storebagForSession(*this);
  if (!found) return;  // nor here
  const std::optional<Dictionary>& storebag = found.value();
  if (!storebag) {
    reply("storebag not available");
    return;
  }
  sendMessageWithSessionInfo(info.get(), user.get(), &*storebag, category, type,
                             payload ? &*payload : nullptr, _createBackends);
  reply("finished");
}

void CorviddSession::sendMessageWithSessionInfo(const Dictionary* sessionInfo,
                                                const Dictionary* userInfo,
                                                const Dictionary* storebag, std::uint16_t category,
                                                std::uint16_t type, const Dictionary* payload,
                                                const BackendSetCreator& creator) {
  logDebug("sendMessageWithSessionInfo: Sending single message with sessionID {}",
           sessionInfo ? integerAt(*sessionInfo, kCorvidSessionInfoSessionID).value_or(0) : 0);
  if (!sessionInfo || !storebag) {
    // The stray leading letter is what readers of the log look for.
    logError(
        "RsendMessageWithSessionInfo: Attempted to send message with one or more nil parameters");
    return;
  }
  char deviceid[uniqueDeviceIDCapacity] = {};
  uniqueDeviceID(deviceid);
  const std::optional<BackendTable> table = creator(storebag, sessionInfo, userInfo, deviceid);
  if (!table) {
    logError("sendMessageWithSessionInfo: No backends available to send single message");
    return;
  }
  if (userInfo && !booleanAt(*sessionInfo, kCorvidSessionInfoRequireUserInfo))
    logWarning("sendMessageWithSessionInfo: user info provided without requiring it.");

  const TimeValue now = Platform::current().clock().now();
  for (const auto& [key, backend] : *table) {
    backend->updateState();
    const auto result = backend->sendMessage(payload, now, category, type, MessageFlag{0});
    if (result && !result->empty())
      writeToLogFile("[{} -> sendMessageWithSessionInfo] {}", key, *result);
  }
  for (const auto& [key, backend] : *table) backend->cleanup();
}

}  // namespace corvid
