#include "backends/https/HTTPSPostBackend.h"

#include <fmt/format.h>

#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "config/Environment.h"
#include "config/Identifiers.h"
#include "platform/Platform.h"
#include "platform/data/JSON.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

// What holds before the storebag was looked at.
ClientPolicy policyOfPreferences(Preferences& preferences, bool batchEvents) {
  ClientPolicy policy;
  policy.postURL = asText(pointerTo(preferences.value(corvidSuite, "httpsPostURL")));
  policy.realtimePostURL =
      asText(pointerTo(preferences.value(corvidSuite, "httpsRealtimePostURL")));
  policy.useDefaultPostURL = policy.postURL.has_value();
  policy.useDefaultRealtimePostURL = policy.realtimePostURL.has_value();
  policy.batchEvents = batchEvents;
  if (policy.postURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL",
             *policy.postURL);
  if (policy.realtimePostURL)
    logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
             *policy.realtimePostURL);
  return policy;
}

std::optional<std::string> copyOf(const std::string* text) {
  return text ? std::optional(*text) : std::nullopt;
}

}  // namespace

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(const std::string& name,
                                                                 const Dictionary* profile,
                                                                 const SharedIdentity& identity) {
  if (profile == nullptr || !identity->productFamily) return nullptr;
  if (arrayAt(*profile, "clients") == nullptr) {
    logError("HTTPSPostBackend(initWithName): can't find the client list.");
    return nullptr;
  }
  return std::make_shared<HTTPSPostBackend>(Token{}, name, *profile, identity);
}

HTTPSPostBackend::HTTPSPostBackend(Token, const std::string& name, const Dictionary& profile,
                                   const SharedIdentity& identity)
    : CorvidBackend(name, profile, identity, textAt(profile, "display_url")),
      _dnuEnabled(_platform.consent().diagnosticsSubmissionAllowed()),
      _uuidRespectDnu(_platform.consent().getPersistentIdentifierForDNU(true)),
      _uuidOverrideDnu(_platform.consent().getPersistentIdentifierForDNU(false)),
      _forceEventLogging(
          asBoolean(pointerTo(_platform.preferences().value(corvidSuite, "forceEventLogging")))
              .value_or(false)),
      _poster(_platform, name, identity),
      _policy(policyOfPreferences(_platform.preferences(), identity->batchEvents)) {}

void HTTPSPostBackend::updateState() {
  const BackendState state = updateBackendState();
  setFollowed(0);
  Reason reason;
  {
    const MutexLock lock(_lock);
    reason = _decidedReason;
  }
  settle(state, reason);
}

void HTTPSPostBackend::takeOver(Standing standing) {
  if (standing.state == BackendState::sending) {
    const MutexLock lock(_lock);
    standing.reason = sendingReason(_policy);
  }
  CorvidBackend::takeOver(standing);
}

BackendState HTTPSPostBackend::updateBackendState() {
  const SharedDictionary userInfo = userInfoDict();
  const PolicyFacts facts{.requireUserInfo = identity().requireUserInfo,
                          .userInfo = userInfo.get(),
                          .consent = _dnuEnabled,
                          .country = _platform.locale().countryCode(),
                          .productFamily = identity().productFamily,
                          .hardwareType = identity().hardwareType,
                          .samplingFactor = samplingFactor()};
  PolicyDecision decision;
  {
    const MutexLock lock(_lock);
    decision = decide(_profile, facts, _policy);
  }
  decision.reason = standingReason(decision);
  logRules(decision, facts);
  if (decision.wantsCustomIdentifier)
    decision.policy.uuidCustom = getPersistentIdentifierForCustomClientIDSuffix(
        copyOf(facts.clientName()), copyOf(facts.serviceID()));
  logMatch(decision, facts, _name);

  if (decision.hierarchy) setHierarchy(*decision.hierarchy);
  const MutexLock lock(_lock);
  if (decision.wasSampled) _samplingThreshold = decision.samplingThreshold;
  _policy = std::move(decision.policy);
  _decidedReason = decision.reason;
  _entry = decision.entry;
  return decision.state;
}

std::optional<std::string> HTTPSPostBackend::sendMessage(const Dictionary* payload,
                                                         const TimeValue& timestamp,
                                                         std::uint16_t method,
                                                         std::uint16_t respCode, EventID,
                                                         MessageFlag flag) {
  if (const Standing now = standing(); now.state == BackendState::disabled) {
    _account->drop(_offered, now.reason);
    return std::nullopt;
  }
  const Event event{payload, timestamp, method, respCode};
  if (event.isSessionStop()) {
    logDebug(
        "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
    if (payload == nullptr)
      logError("HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
  }
  const bool realtime = isRealtime(flag);
  EventRecord record;
  bool atOnce = false;
  bool flushFirst = false;
  bool held = false;
  Leaving leaving;
  {
    // Held until the record is in the batch: a new combined session ID reaches every record.
    const MutexLock lock(_lock);
    record = recordOf(event);
    if (liftsHeld(flag)) {
      // A server's answer may disable the backend at the same time and must not be overwritten.
      Standing before = standing();
      if (before.state == BackendState::held &&
          _standing.compare_exchange_strong(before,
                                            {BackendState::sending, sendingReason(_policy)}))
        standingChanged();
    }
    logDebug("HTTPSPostBackend(sendMessage): realtime is {}", static_cast<int>(realtime));
    const BackendState now = state();
    atOnce = now != BackendState::waiting && now != BackendState::held &&
             (realtime || !_policy.batchEvents) && !lacksUserInfo();
    flushFirst = now == BackendState::sending && realtime && _batchedEvents;
    if (atOnce) {
      leaving.events = _account->ship(_offered, _keysChanged, pointerTo(shown(record)));
    } else {
      logDebug("HTTPSPostBackend(sendMessage): Batching {}, {}, {}", static_cast<int>(now),
               static_cast<int>(_policy.batchEvents), static_cast<int>(identity().requireUserInfo));
      held = batchEvent(record, leaving);
    }
  }
  if (atOnce) {
    leaving.records.push_back(std::move(record));
    return sendAtOnce(std::move(leaving), event, flag, flushFirst);
  }
  if (!held) return flushAtThreshold(std::move(record));
  if (!leaving.records.empty()) return postBatch(std::move(leaving), nullptr);
  return std::nullopt;
}

EventRecord HTTPSPostBackend::recordOf(const Event& event) {
  const RecordContext context{.platform = _platform,
                              .identity = identity(),
                              .policy = _policy,
                              .samplingThreshold = _samplingThreshold,
                              .combinedSessionID = _combinedSessionIDString,
                              .eventID = _eventID.load(),
                              .userInfo = _userInfoDict};
  if (!_frame || !_frame->isOf(context)) _frame = std::make_shared<const RecordFrame>(context);
  _keysChanged.clear();
  return makeEventRecord(event, context, _frame, _keysChanged);
}

std::optional<std::string> HTTPSPostBackend::sendAtOnce(Leaving leaving, const Event& event,
                                                        MessageFlag flag, bool flushFirst) {
  std::optional<std::string> flushed;
  if (flushFirst) {
    logDebug(
        "HTTPSPostBackend(sendMessage): Got a realtime event and some events have already been batched. Forcing Flush here to keep events in order.");
    flushed = flushMessagesWithCompletion(nullptr);
  }
  logDebug("HTTPSPostBackend(sendMessage): Sending {}, {}, {}", static_cast<int>(state()),
           static_cast<int>(batchEvents()), static_cast<int>(identity().requireUserInfo));
  if (!mayLeave(leaving)) return flushed;
  std::optional<Message> message = messageOf(leaving);
  if (!message) return std::nullopt;
  if (flushed)
    message->logText = fmt::format("Flushed events:\n{}\nStandalone event:\n{}", *flushed,
                                   orNull(message->logText));
  post(std::move(message->message), std::move(leaving.events), flag,
       PostEnvelope::EventCodes{event.method, event.respCode}, nullptr, 0);
  return std::move(message->logText);
}

bool HTTPSPostBackend::batchEvent(EventRecord& record, Leaving& displaced) {
  const std::int32_t method = record.method();
  if (!_batchedEvents) _batchedEvents.emplace(_poster.memoryToHold(), _account);
  if (_eventMethodCounts.of(method) > _policy.eventThreshold) return false;
  const std::size_t bytes = record.footprint();
  const auto moveToDisplaced = [&]() REQUIRES(_lock) {
    logDebug("HTTPSPostBackend(batchEvent): Flushing all batched events as the batch is full");
    takeBatch(displaced);
  };
  if (mayPostBatch() && _batchedEvents->overflowsWith(bytes)) moveToDisplaced();
  hold(std::move(record), bytes);
  _eventMethodCounts.increment(method);
  // A record that there is no memory to hold goes at once.
  if (mayPostBatch() && _batchedEvents->exceedsMemory()) moveToDisplaced();
  return true;
}

std::optional<std::string> HTTPSPostBackend::flushAtThreshold(EventRecord record) {
  const std::int32_t method = record.method();
  {
    const auto why = loggingReason(Reason::batchFull);
    logDebug(
        "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method {}",
        method);
  }
  std::optional<std::string> text = flushMessagesWithCompletion(nullptr);
  const MutexLock lock(_lock);
  // A flush leaves no batch, except where it refuses; the event that forced it goes with the batch.
  if (_batchedEvents) {
    const std::size_t bytes = record.footprint();
    hold(std::move(record), bytes);
  } else {
    _account->drop(_offered, Reason::batchFull);
  }
  _eventMethodCounts.set(method, 1);
  return text;
}

void HTTPSPostBackend::hold(EventRecord record, std::size_t bytes) {
  if (!_batchedEvents) _batchedEvents.emplace(_poster.memoryToHold(), _account);
  const bool droppedBefore = _batchedEvents->dropped() > 0;
  const Standing now = standing();
  const bool reports = now.state == BackendState::sending;
  const Reason reason = !reports          ? now.reason
                        : lacksUserInfo() ? Reason::waitingForUserInfo
                                          : Reason::reporting;
  _account->hold(_offered, reason, _keysChanged, pointerTo(shown(record)));
  _batchedEvents->add(std::move(record), bytes, {_userInfoDict, _policy.filters}, _offered);
  if (_batchedEvents->exceedsMemory() && !mayPostBatch()) _batchedEvents->dropOldest();
  const auto why = loggingReason(Reason::overLimit);
  if (!droppedBefore && _batchedEvents->dropped() > 0)
    logError(
        "HTTPSPostBackend(batchEvent): backend {} holds {} events and may not flush them; the oldest are dropped until it may",
        _name, _batchedEvents->size());
}

void HTTPSPostBackend::closeBatch() {
  const auto why = loggingReason(Reason::overLimit);
  if (_batchedEvents->dropped() > 0)
    logError("HTTPSPostBackend(batchEvent): backend {} dropped {} events of a full batch", _name,
             _batchedEvents->dropped());
  _batchedEvents.reset();
}

std::optional<std::string> HTTPSPostBackend::flushMessagesWithCompletion(
    FlushCompletion completion) {
  Leaving leaving;
  std::optional<CorvidError> refusal;
  {
    const MutexLock lock(_lock);
    refusal = takeBatch(leaving);
  }
  if (refusal) {
    if (completion) completion(std::nullopt, std::move(refusal));
    return std::nullopt;
  }
  return postBatch(std::move(leaving), std::move(completion));
}

std::optional<CorvidError> HTTPSPostBackend::takeBatch(Leaving& leaving) {
  if (!_batchedEvents) return nothingToFlush();
  if (state() != BackendState::sending) {
    closeBatch();
    return nothingToFlush();
  }
  if (lacksUserInfo()) return CorvidError::of(-1, "Can not flush: userInfo is required");
  logDebug("HTTPSPostBackend(flushMessagesWithCompletion): called");
  if (_userInfoDict) _batchedEvents->addUserInfo({_userInfoDict, _policy.filters});
  leaving.events.join(_batchedEvents->takeInto(leaving.records));
  closeBatch();
  _eventMethodCounts.clear();
  return std::nullopt;
}

std::optional<std::string> HTTPSPostBackend::postBatch(Leaving leaving,
                                                       FlushCompletion completion) {
  if (!mayLeave(leaving)) {
    if (completion) completion(std::nullopt, CorvidError::of(-1, "Consent was withdrawn"));
    return std::nullopt;
  }
  std::optional<Message> message = messageOf(leaving);
  if (!message) {
    if (completion) completion(std::nullopt, nothingToFlush());
    return std::nullopt;
  }
  FlushCompletion posted;
  const std::size_t keptBytes = completion && message->logText ? message->logText->size() : 0;
  if (completion)
    posted = [completion = std::move(completion), text = message->logText](
                 std::optional<std::string>, std::optional<CorvidError> error) {
      completion(text, std::move(error));
    };
  post(std::move(message->message), std::move(leaving.events), MessageFlag{0}, std::nullopt,
       std::move(posted), keptBytes);
  return std::move(message->logText);
}

std::optional<HTTPSPostBackend::Message> HTTPSPostBackend::messageOf(Leaving& leaving) const {
  std::optional<std::string> identifier;
  bool isLogged = false;
  {
    const MutexLock lock(_lock);
    identifier = clientIdentifier();
    isLogged = wantsMessageLog();
  }
  auto message = _poster.createMessageForPostAndLogging(std::move(leaving.records),
                                                        std::move(identifier), leaving.events);
  if (!message) return std::nullopt;
  std::optional<std::string> prettyJsonString;
  if (isLogged) prettyJsonString = indentedJSON(message->text);
  return Message{*std::move(message), std::move(prettyJsonString)};
}

std::optional<std::string> HTTPSPostBackend::clientIdentifier() const {
  if (_policy.extrasOnInternal != 0 && identity().isInternal) return identity().udid;
  if (_policy.uuidCustom) return _policy.uuidCustom;
  return _policy.dnuType == DNUType::respected ? _uuidRespectDnu : _uuidOverrideDnu;
}

bool HTTPSPostBackend::wantsMessageLog() const {
  if (_policy.dnuType == DNUType::respected && _dnuEnabled) return true;
  if (!_forceEventLogging) return false;
  const CorvidEnvironmentType environment = currentEnvironment();
  return environment == CorvidEnvironmentType::development ||
         environment == CorvidEnvironmentType::internal;
}

std::function<bool()> HTTPSPostBackend::consentToAsk() const {
  if (!_platform.deployment()->consentIsLive) return {};
  const MutexLock lock(_lock);
  if (_policy.dnuType != DNUType::respected) return {};
  return [&consent = _platform.consent()] { return consent.diagnosticsSubmissionAllowed(); };
}

bool HTTPSPostBackend::mayLeave(Leaving& leaving) {
  const std::function<bool()> consents = consentToAsk();
  if (!consents || consents()) return true;
  leaving.events.drop(Reason::noConsent);
  const auto why = loggingReason(Reason::noConsent);
  const std::size_t records = leaving.records.size();
  if (_withdrawn.fetch_add(records) == 0)
    logWarning(
        "HTTPSPostBackend(mayLeave): {}: consent was withdrawn; {} events are dropped, and those that follow",
        _name, records);
  return false;
}

void HTTPSPostBackend::cleanup() {
  const auto why = loggingReason(Reason::noConsent);
  if (const std::size_t dropped = _withdrawn.exchange(0))
    logWarning(
        "HTTPSPostBackend(cleanup): {}: {} events were dropped because consent was withdrawn",
        _name, dropped);
}

void HTTPSPostBackend::post(EventPoster::Message message, Shipment events, MessageFlag flag,
                            std::optional<PostEnvelope::EventCodes> codes,
                            FlushCompletion completion, std::size_t keptBytes) {
  PostEnvelope envelope;
  {
    const MutexLock lock(_lock);
    envelope = {isRealtime(flag) ? _policy.realtimePostURL : _policy.postURL, _userInfoDict, codes};
  }
  envelope.mayLeave = consentToAsk();
  _poster.postJSONMessage(std::move(message), envelope, std::move(events), weak_from_this(),
                          std::move(completion), keptBytes);
}

void HTTPSPostBackend::setCorrelatedSessionID(std::string sessionID) {
  const MutexLock lock(_lock);
  if (_batchedEvents) _batchedEvents->setForAll("_sessionID", sessionID);
  _combinedSessionIDString = std::move(sessionID);
}

void HTTPSPostBackend::filterEvent(Dictionary& record) const {
  const MutexLock lock(_lock);
  _policy.filters->apply(record);
}

std::optional<std::size_t> HTTPSPostBackend::entry() const {
  const MutexLock lock(_lock);
  return _entry;
}

std::size_t HTTPSPostBackend::heldBytes() const {
  const MutexLock lock(_lock);
  return _batchedEvents ? _batchedEvents->bytes() : 0;
}

bool HTTPSPostBackend::batchEvents() const {
  const MutexLock lock(_lock);
  return _policy.batchEvents;
}

ClientPolicy HTTPSPostBackend::policy() const {
  const MutexLock lock(_lock);
  return _policy;
}

std::optional<std::string> HTTPSPostBackend::postURL() const {
  const MutexLock lock(_lock);
  return _policy.postURL;
}

void HTTPSPostBackend::setPostURL(std::optional<std::string> postURL) {
  const MutexLock lock(_lock);
  _policy.postURL = std::move(postURL);
}

}  // namespace corvid
