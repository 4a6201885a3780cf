// What becomes of an event: dropped, posted at once or held in the batch until a flush.
#include <fmt/format.h>

#include <utility>

#include "backends/https/HTTPSPostBackend.h"
#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/Value.h"

namespace corvid {

namespace {

constexpr std::uint16_t sessionStop = 1;

}  // namespace

std::optional<std::string> HTTPSPostBackend::sendMessage(const Dictionary* payload,
                                                         const TimeValue& timestamp,
                                                         std::uint16_t method,
                                                         std::uint16_t respCode, EventID,
                                                         MessageFlag flag) {
  if (state() == BackendState::disabled) return std::nullopt;
  if (respCode == sessionStop) {
    logDebug(
        "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
    if (payload == nullptr)
      logError("HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
  }
  const bool realtime = isRealtime(flag);
  Dictionary record;
  bool atOnce = false;
  bool flushFirst = false;
  bool held = false;
  Records displaced;
  {
    // Held until the record is in the batch: a new combined session ID reaches every record.
    MutexLock lock(_lock);
    if (respCode == sessionStop && payload != nullptr) {
      Dictionary summarised = *payload;
      addStopEventSummary(summarised);
      record = createEventDictfromPayload(&summarised, timestamp, method, respCode);
    } else {
      record = createEventDictfromPayload(payload, timestamp, method, respCode);
    }
    prepareEventForMessage(record);
    if (liftsHeld(flag)) {
      // A server's answer may disable the backend at the same time and must not be overwritten.
      BackendState before = BackendState::held;
      _state.compare_exchange_strong(before, BackendState::sending);
    }
    logDebug("HTTPSPostBackend(sendMessage): realtime is {}", static_cast<int>(realtime));
    const BackendState now = state();
    atOnce = now != BackendState::waiting && now != BackendState::held &&
             (realtime || !_batchEvents) && (!identity().requireUserInfo || _userInfoDict);
    flushFirst = now == BackendState::sending && realtime && _batchedEvents;
    if (!atOnce) {
      logDebug("HTTPSPostBackend(sendMessage): Batching {}, {}, {}", static_cast<int>(now),
               static_cast<int>(_batchEvents), static_cast<int>(identity().requireUserInfo));
      held = batchEvent(record, displaced);
    }
  }
  if (atOnce) return sendAtOnce(std::move(record), {method, respCode}, flag, flushFirst);
  if (!held) return flushAtThreshold(std::move(record));
  if (!displaced.empty()) return postBatch(std::move(displaced), nullptr);
  return std::nullopt;
}

std::optional<std::string> HTTPSPostBackend::sendAtOnce(Dictionary record, EventCodes codes,
                                                        MessageFlag flag, bool flushFirst) {
  std::optional<std::string> flushed;
  if (flushFirst) {
    logDebug(
        "HTTPSPostBackend(sendMessage): Got a realtime event and some events have already been batched. Forcing Flush here to keep events in order.");
    flushed = flushMessagesWithCompletion(nullptr);
  }
  logDebug("HTTPSPostBackend(sendMessage): Sending {}, {}, {}", static_cast<int>(state()),
           static_cast<int>(batchEvents()), static_cast<int>(identity().requireUserInfo));
  Records records;
  records.push_back(std::move(record));
  std::optional<std::string> text;
  std::optional<std::string> message = createMessageForPostAndLogging(std::move(records), text);
  if (!message) return std::nullopt;
  if (flushed)
    text = fmt::format("Flushed events:\n{}\nStandalone event:\n{}", *flushed, orNull(text));
  postJSONMessage(std::move(*message), flag, codes, nullptr, 0);
  return text;
}

bool HTTPSPostBackend::batchEvent(Dictionary& record, Records& displaced) {
  const std::int32_t method = int32At(record, "_method");
  if (!_batchedEvents) _batchedEvents.emplace();
  if (_eventMethodCounts.of(method) > _eventThreshold) return false;
  if (canFlush() && _batchedEvents->overflowsWith(record)) {
    logDebug("HTTPSPostBackend(batchEvent): Flushing all batched events as the batch is full");
    takeBatch(displaced);
  }
  hold(std::move(record));
  _eventMethodCounts.increment(method);
  return true;
}

std::optional<std::string> HTTPSPostBackend::flushAtThreshold(Dictionary record) {
  const std::int32_t method = int32At(record, "_method");
  logDebug(
      "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method {}",
      method);
  std::optional<std::string> text = flushMessagesWithCompletion(nullptr);
  MutexLock lock(_lock);
  // A flush leaves no batch, except where it refuses; the event that forced it goes with the batch.
  if (_batchedEvents) hold(std::move(record));
  _eventMethodCounts.set(method, 1);
  return text;
}

bool HTTPSPostBackend::canFlush() const {
  return state() == BackendState::sending && (!identity().requireUserInfo || _userInfoDict);
}

void HTTPSPostBackend::hold(Dictionary record) {
  if (!_batchedEvents) _batchedEvents.emplace();
  const bool droppedBefore = _batchedEvents->dropped() > 0;
  _batchedEvents->add(std::move(record));
  if (!droppedBefore && _batchedEvents->dropped() > 0)
    logError(
        "HTTPSPostBackend(batchEvent): backend {} holds {} events and may not flush them; the oldest are dropped until it may",
        _name, _batchedEvents->size());
}

void HTTPSPostBackend::closeBatch() {
  if (_batchedEvents->dropped() > 0)
    logError("HTTPSPostBackend(batchEvent): backend {} dropped {} events of a full batch", _name,
             _batchedEvents->dropped());
  _batchedEvents.reset();
}

std::optional<std::string> HTTPSPostBackend::flushMessagesWithCompletion(
    FlushCompletion completion) {
  Records records;
  std::optional<CorvidError> refusal;
  {
    MutexLock lock(_lock);
    refusal = takeBatch(records);
  }
  if (refusal) {
    if (completion) completion(std::nullopt, std::move(refusal));
    return std::nullopt;
  }
  return postBatch(std::move(records), std::move(completion));
}

std::optional<std::string> HTTPSPostBackend::postBatch(Records records,
                                                       FlushCompletion completion) {
  std::optional<std::string> text;
  std::optional<std::string> message = createMessageForPostAndLogging(std::move(records), text);
  if (!message) {
    if (completion) completion(std::nullopt, nothingToFlush());
    return std::nullopt;
  }
  FlushCompletion posted;
  const std::size_t keptBytes = completion && text ? text->size() : 0;
  if (completion)
    posted = [completion = std::move(completion), text](std::optional<std::string>,
                                                        std::optional<CorvidError> error) {
      completion(text, std::move(error));
    };
  postJSONMessage(std::move(*message), MessageFlag{0}, std::nullopt, std::move(posted), keptBytes);
  return text;
}

std::optional<CorvidError> HTTPSPostBackend::takeBatch(Records& records) {
  if (!_batchedEvents) return nothingToFlush();
  if (state() != BackendState::sending) {
    closeBatch();
    return nothingToFlush();
  }
  if (identity().requireUserInfo && !_userInfoDict)
    return CorvidError::of(-1, "Can not flush: userInfo is required");
  logDebug("HTTPSPostBackend(flushMessagesWithCompletion): called");
  if (_userInfoDict) {
    Dictionary userInfo = *_userInfoDict;
    _filters.apply(userInfo);
    _batchedEvents->makeRoomToGrowBy(footprint(userInfo));
    records = std::move(*_batchedEvents).take();
    for (Dictionary& record : records) record.addEntriesFrom(userInfo);
  } else {
    records = std::move(*_batchedEvents).take();
  }
  closeBatch();
  _eventMethodCounts.clear();
  return std::nullopt;
}

void HTTPSPostBackend::setCorrelatedSessionID(std::string sessionID) {
  MutexLock lock(_lock);
  if (_batchedEvents) _batchedEvents->setForAll("_sessionID", sessionID);
  _combinedSessionIDString = std::move(sessionID);
}

}  // namespace corvid
