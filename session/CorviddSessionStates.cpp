// Reporting states along a chain, user info, combined session IDs, aggregation.
#include <fmt/format.h>

#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "protocol/Keys.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

// A name that both lack, or that is no text in both, is the same.
bool nameChanged(std::string_view key, const Dictionary& oldInfo, const Dictionary& newInfo) {
  const std::string* oldName = stringAt(oldInfo, key);
  const std::string* newName = stringAt(newInfo, key);
  return oldName && newName ? *oldName != *newName : oldName != newName;
}

void followParent(CorvidBackend& backend, const CorvidBackend* parent) {
  if (backend.state() == BackendState::held) return;
  if (!parent) {
    backend.setState(BackendState::disabled);
    return;
  }
  const BackendState state = parent->state();
  const std::optional<double> threshold = parent->samplingThreshold();
  backend.setState(state);
  backend.setSamplingThreshold(threshold);
  logDebug(
      "HTTPSPostBackend(syncReportingStates): {}: state and sampling rate updated to {}, {:.2f}%",
      backend.name(), static_cast<std::int32_t>(state),
      static_cast<double>(static_cast<float>(threshold.value_or(0))));
}

}  // namespace

void CorviddSession::fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                             StatesReply reply) {
  logDebug("fetchStatesWithUserInfo: Fetching states for session {}", sessionID());
  receivedUserInfo(userInfo ? std::make_shared<const Dictionary>(*std::move(userInfo)) : nullptr);
  reply(fetchReportingStates());
}

std::optional<Array> CorviddSession::fetchReportingStates() const {
  const auto table = backends();
  if (!table) return std::nullopt;
  Array names;
  for (const auto& [key, backend] : *table) {
    const BackendState state = backend->state();
    if (state == BackendState::sending || state == BackendState::held) names.emplace_back(key);
  }
  return names;
}

void CorviddSession::updateReportingStates() {
  if (const auto table = backends())
    for (const auto& [key, backend] : *table) backend->updateState();
}

void CorviddSession::updateUserInfoForBackends() {
  if (const auto table = backends())
    for (const auto& [key, backend] : *table) backend->setUserInfoDict(userInfo());
}

void CorviddSession::receivedUserInfo(std::shared_ptr<const Dictionary> userInfo) {
  bool changed = true;
  if (const auto oldInfo = sharedUserInfo()) {
    const auto info = sharedSessionInfo();
    if (!userInfo && info && booleanAt(*info, kCorvidSessionInfoRequireUserInfo)) return;
    changed = !userInfo || nameChanged(kCorvidUserInfoClientName, *oldInfo, *userInfo) ||
              nameChanged(kCorvidUserInfoServiceName, *oldInfo, *userInfo);
  } else if (!userInfo) {
    return;
  }
  {
    const MutexLock lock(_lock);
    _userInfo.swap(userInfo);
  }
  updateUserInfoForBackends();
  if (!changed) return;
  logDebug("receivedUserInfo: Received new user info for session {}", sessionID());
  updateSessionWithDefaultSessionInfo();
}

void CorviddSession::syncReportingStates(const CorviddSession* parent) {
  const auto table = backends();
  if (!table) return;
  const auto parentTable = parent ? parent->backends() : nullptr;
  for (const auto& [key, backend] : *table) {
    if (parent) {
      followParent(*backend, backendNamed(key, parentTable.get()));
    } else if (const std::int32_t hierarchy = backend->hierarchy(); hierarchy >= 1) {
      logInfo(
          "syncReportingStates: child session {} (backend {}) with hierarchy {} is missing its parent",
          sessionID(), backend->name(), hierarchy);
    }
  }
}

void CorviddSession::updateCombinedSessionID(
    const std::optional<std::string>& parentSessionIDString) {
  if (!parentSessionIDString) return;
  const std::string combinedID = fmt::format("{}.{}", *parentSessionIDString, sessionIDString());
  logDebug("updateCombinedSessionID: Updating combined session ID '{}' for session {} backends",
           combinedID, sessionID());
  if (const auto table = backends())
    for (const auto& [key, backend] : *table) backend->setCorrelatedSessionID(combinedID);
}

void CorviddSession::aggregateMessage(const Message& message, double timestamp) {
  const auto deliverTo = [&](const CorviddSession& aggregating) {
    std::optional<Dictionary> payload;
    if (message.payload) {
      payload = *message.payload;
      // Its entries win over equal keys. Without a payload the user info is not told either.
      if (const auto info = sharedUserInfo()) payload->addEntriesFrom(*info);
    }
    aggregating.sendToAggregator(sessionInfo(), timestamp, message.category, message.type,
                                 std::move(payload));
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
  logDebug("shutdownSessionAggregation: Disable aggregation module for session {}", sessionID());
  if (hasAggregator()) sendToAggregator(std::nullopt, 0.0, 0, 0, std::nullopt);
  setHasAggregator(false);
}

}  // namespace corvid
