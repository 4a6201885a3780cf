// What passes through a session: messages to backends and aggregators, flushes, uploads.
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "base/URL.h"
#include "config/DeviceInformation.h"
#include "config/MessageLog.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"
#include "protocol/LogReason.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

constexpr std::string_view noBackends = "No backends available to send message";

// Only what arrived as a number: in a message, neither a boolean nor a text stands for one.
std::optional<std::int64_t> numberAt(const Dictionary& message, std::string_view key) {
  const Value* value = message.find(key);
  if (!value || (value->type() != Value::Type::integer && value->type() != Value::Type::real))
    return std::nullopt;
  return asInteger(value);
}

// Nothing, with a log line, where the category or the type is missing.
std::optional<SessionMessage> messageFromDictionary(const Dictionary& message) {
  const auto why = loggingReason(Reason::incompleteMessage);
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
  return SessionMessage{static_cast<std::uint16_t>(*category), static_cast<std::uint16_t>(*type),
                        dictionaryAt(message, kCorvidMessageParametersPayload),
                        static_cast<MessageFlag>(flag)};
}

MessageAnswer droppedFor(Reason reason) {
  MessageAnswer answer;
  answer.dropped = reason;
  return answer;
}

Ledger::Event eventOf(std::uint64_t session, const SessionMessage& message) {
  return {session, message.category, message.type, static_cast<std::int32_t>(message.flag)};
}

// The path of "file:///a%20b" is "/a b"; a host, a query and a fragment are no part of it.
std::string fileSystemPath(std::string_view fileURL) {
  constexpr std::string_view scheme = "file:";
  if (fileURL.starts_with(scheme)) fileURL.remove_prefix(scheme.size());
  fileURL = fileURL.substr(0, fileURL.find_first_of("?#"));
  if (fileURL.starts_with("//")) {
    const std::size_t path = fileURL.find('/', 2);
    fileURL = path == std::string_view::npos ? std::string_view() : fileURL.substr(path);
  }
  return percentDecoded(fileURL);
}

// A URL has no control characters; one that a client sends all the same writes no log line of its
// own.
std::string inOneLine(const std::string& fileURL) {
  std::string line;
  for (const char c : fileURL) {
    const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    line += isControl ? percentEncodedForQuery({&c, 1}) : std::string(1, c);
  }
  return line;
}

}  // namespace

void CorviddSession::sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                             std::optional<Dictionary> payload, ResultReply reply) {
  logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
  reply(dispatch({category, type, pointerTo(payload)}));
}

void CorviddSession::sendMessageWithDictionary(Dictionary message, ResultReply reply) {
  // The text of the category form stands here too.
  logDebug("sendMessageWithCategory: Sending message for session {}", sessionID());
  // Without backends the message itself is not examined.
  const auto parsed = backends() ? messageFromDictionary(message) : SessionMessage{};
  if (parsed) return reply(dispatch(*parsed));
  _ledger->drop({.session = _number}, Reason::incompleteMessage);
  reply(droppedFor(Reason::incompleteMessage));
}

void CorviddSession::finishSessionWithReply(ResultReply reply) {
  logDebug("finishSessionWithReply: Finishing session {}", sessionID());
  reply(dispatch({sessionCategory, sessionFinish}));
}

void CorviddSession::internalSendMessage(const Dictionary& payload, SessionMessageType respCode) {
  dispatch({sessionCategory, respCode, &payload});
  logDebug("internalSendMessage: Sent internal message (method:{} respCode:{})", sessionCategory,
           static_cast<std::uint16_t>(respCode));
}

MessageAnswer CorviddSession::answerTo(const Ledger::Offer& offer,
                                       std::optional<std::string> text) const {
  MessageAnswer answer(std::move(text));
  if (_wantsReasons) answer.dropped = offer.whyNobodyTookIt();
  return answer;
}

MessageAnswer CorviddSession::dispatch(const SessionMessage& message) {
  const auto backends = this->backends();
  if (!backends) {
    const auto why = loggingReason(_silence);
    logDebug("sendMessageWithDictionary: No backends available to send message");
    _ledger->drop(eventOf(_number, message), _silence);
    return droppedFor(_silence);
  }
  const TimeValue now = _platform.clock().now();
  aggregateMessage(message, now.asDouble());
  if (backends->empty()) {
    _ledger->drop(eventOf(_number, message), Reason::noBackendMade);
    return droppedFor(Reason::noBackendMade);
  }
  const Ledger::Offer offer = _ledger->offer(eventOf(_number, message));
  return answerTo(offer, backends->send(message, now, offer.mark()));
}

void CorviddSession::aggregateMessage(const SessionMessage& message, double timestamp) {
  const auto deliverTo = [&](const CorviddSession& aggregating) {
    std::optional<Dictionary> payload;
    if (message.payload) {
      payload = *message.payload;
      // Its entries win over equal keys. Without a payload the user info is not told either.
      if (const auto info = userInfo()) payload->addEntriesFrom(*info);
    }
    const auto info = sessionInfo();
    aggregating.sendToAggregator(info ? *info : Dictionary(), timestamp, message.category,
                                 message.type, std::move(payload));
  };
  {
    CorviddSessionDelegate& agent = *_sessionDelegate;
    const RecursiveLock lock(agent.mutex());
    if (const CorviddSession* ancestor = agent.getAncestorWithAggregatorForSession(*this)) {
      deliverTo(*ancestor);
      return;
    }
  }
  if (hasAggregator()) deliverTo(*this);
}

void CorviddSession::sendToAggregator(std::optional<Dictionary> message, double timestamp,
                                      std::uint16_t category, std::uint16_t type,
                                      std::optional<Dictionary> payload) const {
  const auto proxy =
      _connection->remoteObjectProxyWithErrorHandler([](const std::string& description) {
        logError("sendMessageWithDictionary: Failed to get remote object proxy: {}", description);
      });
  proxy->sendMessageToClient(std::move(message), timestamp, category, type, std::move(payload));
}

void CorviddSession::shutdownSessionAggregation() {
  const LoggingFor session(_logSubject.get());
  logDebug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
  if (hasAggregator()) sendToAggregator(std::nullopt, 0.0, 0, 0, std::nullopt);
  setHasAggregator(false);
}

void CorviddSession::flushMessagesWithCompletion(FlushReply completion) {
  logDebug("flushMessagesWithCompletion: Flushing messages for session {}", sessionID());
  internalFlushMessagesWithCompletion(
      [reply = std::make_shared<FlushReply>(std::move(completion))](auto result, auto error) {
        (*reply)(std::move(result), std::move(error));
      });
}

void CorviddSession::internalFlushMessagesWithCompletion(FlushCompletion completion) {
  if (const auto backends = this->backends()) {
    backends->flush(std::move(completion));
    return;
  }
  const auto why = loggingReason(_silence);
  logDebug("internalFlushMessagesWithCompletion: {}", noBackends);
  if (completion) completion(std::nullopt, CorvidError::of(-1, std::string(noBackends)));
}

void CorviddSession::uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                      SuccessReply completion) {
  logDebug("uploadFileAtPath: Uploading file for session {}", sessionID());
  const std::string path = fileSystemPath(fileURL);
  const auto backends = this->backends();
  const bool success = backends && backends->anyTakes([&](CorvidBackend& backend) {
    return backend.uploadFileAtPath(path, extensionToken);
  });
  if (success)
    logDebug("uploadFileWithURL: File upload successful for {}", path);
  else
    logError("uploadFileWithURL: File upload failed for {}", path);
  writeToLogFile("[uploadFileWithURL] Upload {} for file {}", success ? "succeeded" : "failed",
                 inOneLine(fileURL));
  completion(success);
}

void CorviddSession::uploadLogData(Array logData, LogDataReply completion) {
  const auto backends = this->backends();
  const bool success = backends && backends->anyTakes([&](CorvidBackend& backend) {
    return backend.uploadLogData(logData);
  });
  if (success)
    logDebug("uploadLogData: Log data array upload successful");
  else
    logError("uploadLogData: Log data array upload failed");
  completion(success, std::nullopt);
}

void CorviddSession::sendMessageWithSessionInfo(Dictionary sessionInfo,
                                                std::optional<Dictionary> userInfo,
                                                std::uint16_t category, std::uint16_t type,
                                                std::optional<Dictionary> payload,
                                                ResultReply reply) {
  const Ledger::Event event{_number, category, type};
  const auto newSessionID = integerAt(sessionInfo, kCorvidSessionInfoSessionID);
  if (!newSessionID || !integerAt(sessionInfo, kCorvidSessionInfoClientType)) {
    logError("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo");
    _ledger->drop(event, Reason::noSessionInfo);
    return;  // the client gets no answer
  }
  setSessionID(static_cast<std::uint32_t>(*newSessionID));
  const auto info = std::make_shared<const Dictionary>(std::move(sessionInfo));
  const auto user = userInfo ? std::make_shared<const Dictionary>(*std::move(userInfo)) : nullptr;
  {
    const MutexLock lock(_mutex);
    _sessionInfo = info;
  }
  nameInLog();
  receivedUserInfo(user);
  logDebug("sendMessageWithSessionInfo: Sending message with session info for session {}",
           sessionID());

  const auto found = _sessionDelegate->storebagForSession(*this);
  MessageAnswer refusal("storebag not available");
  if (!found || !found.value()) {
    refusal.dropped = _sessionDelegate->whyNoStorebagForSession(*this);
    _ledger->drop(event, *refusal.dropped);
  }
  if (!found) return;  // nor here
  const std::optional<Dictionary>& storebag = found.value();
  if (!storebag) return reply(std::move(refusal));
  const Ledger::Offer offer = _ledger->offer(event);
  if (!sendMessageWithSessionInfo(info.get(), user, &*storebag, category, type, pointerTo(payload),
                                  _createBackends, offer.mark()))
    offer.drop(Reason::noBackendMade);
  reply(answerTo(offer, "finished"));
}

bool CorviddSession::sendMessageWithSessionInfo(const Dictionary* sessionInfo,
                                                const SharedDictionary& userInfo,
                                                const Dictionary* storebag, std::uint16_t category,
                                                std::uint16_t type, const Dictionary* payload,
                                                const BackendSetCreator& creator, EventMark mark) {
  logDebug("sendMessageWithSessionInfo: Sending single message with sessionID {}",
           sessionInfo ? integerAt(*sessionInfo, kCorvidSessionInfoSessionID).value_or(0) : 0);
  if (!sessionInfo || !storebag) {
    // The stray leading letter is what readers of the log look for.
    logError(
        "RsendMessageWithSessionInfo: Attempted to send message with one or more nil parameters");
    return false;
  }
  const std::optional<BackendTable> table =
      creator(storebag, sessionInfo, userInfo, uniqueDeviceID());
  if (!table) {
    logError("sendMessageWithSessionInfo: No backends available to send single message");
    return false;
  }
  if (userInfo && !booleanAt(*sessionInfo, kCorvidSessionInfoRequireUserInfo))
    logWarning("sendMessageWithSessionInfo: user info provided without requiring it.");

  const TimeValue now = Platform::current().clock().now();
  for (const auto& [key, backend] : *table) {
    const LoggingBackend logged(key);
    backend->updateState();
    const auto result = backend->sendMessage(payload, now, category, type, MessageFlag{0}, mark);
    if (result && !result->empty())
      writeToLogFile("[{} -> sendMessageWithSessionInfo] {}", key, *result);
  }
  for (const auto& [key, backend] : *table) {
    const LoggingBackend logged(key);
    backend->cleanup();
  }
  return !table->empty();
}

}  // namespace corvid
