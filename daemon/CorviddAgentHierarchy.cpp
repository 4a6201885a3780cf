// The agent's groups of sessions and the walks along their chains.
#include <algorithm>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "config/Identifiers.h"
#include "daemon/CorviddAgent.h"

namespace corvid {

namespace {

// What an empty group costs besides its name, roughly.
constexpr std::size_t bytesPerGroup = 96;

std::size_t costOfGroup(const std::string& key) { return key.size() + bytesPerGroup; }

bool contains(const std::vector<std::shared_ptr<CorviddSession>>& sessions,
              const CorviddSession& session) {
  return std::ranges::any_of(sessions,
                             [&](const auto& member) { return member.get() == &session; });
}

}  // namespace

std::shared_ptr<CorviddSession> CorviddAgent::getFirstSessionWithHierarchy(
    std::uint32_t level, const SessionList& inSessionList) {
  const auto found = std::ranges::find_if(inSessionList, [level](const auto& session) {
    return static_cast<std::uint32_t>(session->getSessionHierarchy()) == level;
  });
  return found == inSessionList.end() ? nullptr : *found;
}

const CorviddAgent::SessionList* CorviddAgent::group(const std::string& key) const {
  const auto found = _correlatedSessions.find(key);
  return found == _correlatedSessions.end() || found->second.empty() ? nullptr : &found->second;
}

CorviddAgent::SessionList& CorviddAgent::groupMadeIfMissing(const std::string& key) {
  const auto found = _correlatedSessions.find(key);
  if (found != _correlatedSessions.end()) return found->second;
  if (_groupBytes + costOfGroup(key) > keptGroupBytes) {
    std::erase_if(_correlatedSessions, [](const auto& entry) { return entry.second.empty(); });
    _groupBytes = 0;
    for (const auto& [kept, sessions] : _correlatedSessions) _groupBytes += costOfGroup(kept);
  }
  _groupBytes += costOfGroup(key);
  SessionList& made = _correlatedSessions[key];
  _groupCount = _correlatedSessions.size();
  return made;
}

void CorviddAgent::removeFromGroups(const CorviddSession& session) {
  // Every group, not only that of the present user info: it may have been replaced since.
  for (auto& [key, sessions] : _correlatedSessions)
    std::erase_if(sessions, [&](const auto& member) { return member.get() == &session; });
}

void CorviddAgent::userInfoUpdatedForSession(CorviddSession& session) {
  const auto userInfo = session.sharedUserInfo();
  if (!userInfo) {
    logInfo("userInfoUpdatedForSession: No user info found for session {}", session.sessionID());
    return;
  }
  const std::string key = clientKey(userInfo.get());
  // Taken before the lock, so that leaving a group never drops the last reference under it.
  std::shared_ptr<CorviddSession> joining = session.shared_from_this();

  const RecursiveLock lock(_mutex);
  removeFromGroups(session);
  SessionList& sessions = groupMadeIfMissing(key);
  logDebug("userInfoUpdatedForSession: Adding session {} to list for userInfoKey {}",
           session.sessionID(), key);
  sessions.push_back(joining);
}

std::optional<std::string> CorviddAgent::parentSessionIDStringForSession(CorviddSession& session) {
  const std::int32_t hierarchy = session.getSessionHierarchy();
  if (hierarchy == 0) return std::nullopt;
  const std::string key = clientKey(session.sharedUserInfo().get());
  logDebug("parentSessionIDStringForSession: Checking userInfoKey '{}' for session {}", key,
           session.sessionID());

  const RecursiveLock lock(_mutex);
  const SessionList* sessions = group(key);
  if (!sessions) {
    logError("parentSessionIDStringForSession: ERROR: No sessions found for user info key {}", key);
    return std::nullopt;
  }
  if (!contains(*sessions, session)) {
    logError("parentSessionIDStringForSession: ERROR: Session {} not found for user info key {}",
             session.sessionID(), key);
    return std::nullopt;
  }
  std::optional<std::string> parentSessionID;
  for (std::int64_t level = std::int64_t{hierarchy} - 1; level >= 0; --level) {
    const auto parent = getFirstSessionWithHierarchy(static_cast<std::uint32_t>(level), *sessions);
    if (!parent) {
      logInfo(
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
          orNull(parentSessionID));
      break;
    }
    parentSessionID = parentSessionID ? parent->sessionIDString() + "." + *parentSessionID
                                      : parent->sessionIDString();
  }
  return parentSessionID;
}

std::shared_ptr<CorviddSession> CorviddAgent::parentSessionForChild(CorviddSession& session) {
  const std::int32_t hierarchy = session.getSessionHierarchy();
  if (hierarchy == 0) return nullptr;
  const std::string key = clientKey(session.sharedUserInfo().get());
  logDebug("parentSessionForChild: Checking userInfoKey '{}' for session {}", key,
           session.sessionID());
  const SessionList* sessions = group(key);
  if (!sessions) {
    logError("parentSessionForChild: ERROR: No sessions found for user info key {}", key);
    return nullptr;
  }
  if (!contains(*sessions, session)) {
    logError("parentSessionForChild: ERROR: Session {} not found for user info key {}",
             session.sessionID(), key);
    return nullptr;
  }
  const std::int64_t level = std::int64_t{hierarchy} - 1;
  auto parent = level < 0
                    ? nullptr
                    : getFirstSessionWithHierarchy(static_cast<std::uint32_t>(level), *sessions);
  if (!parent)
    logInfo(
        "parentSessionForChild: Unable to find session with hierarchy of {} for userInfoKey '{}'",
        level, key);
  return parent;
}

// The first session of the topmost level whose first session aggregates. Only the levels that occur
// are looked at, because the configuration may number them sparsely.
std::shared_ptr<CorviddSession> CorviddAgent::getAncestorWithAggregatorForSession(
    CorviddSession& session) {
  const auto userInfo = session.sharedUserInfo();
  if (!userInfo) {
    logInfo("getAncestorWithAggregatorForSession: No user info found for session {}",
            session.sessionID());
    return nullptr;
  }
  std::int32_t topmostLevel = session.getSessionHierarchy();
  if (topmostLevel < 1) return nullptr;
  const SessionList* sessions = group(clientKey(userInfo.get()));
  if (!sessions) return nullptr;
  std::shared_ptr<CorviddSession> topmost;
  for (const auto& candidate : *sessions) {
    if (!candidate->hasAggregator()) continue;
    const std::int32_t level = candidate->getSessionHierarchy();
    if (level < 0 || level >= topmostLevel) continue;
    if (getFirstSessionWithHierarchy(static_cast<std::uint32_t>(level), *sessions) != candidate)
      continue;
    topmost = candidate;
    topmostLevel = level;
  }
  return topmost;
}

void CorviddAgent::updateDownstreamSessions(CorviddSession& session) {
  const auto userInfo = session.sharedUserInfo();
  if (!userInfo) {
    logInfo("updateDownstreamSessions: No user info found for session {}", session.sessionID());
    return;
  }
  const std::int32_t hierarchy = session.getSessionHierarchy();

  const RecursiveLock lock(_mutex);
  session.updateCombinedSessionID();
  session.syncReportingStates();
  const bool ancestorAggregates = hierarchy >= 1 && getAncestorWithAggregatorForSession(session);
  if (ancestorAggregates) session.shutdownSessionAggregation();

  const SessionList* sessions = group(clientKey(userInfo.get()));
  if (!sessions) return;
  for (const auto& descendant : *sessions) {
    if (descendant->getSessionHierarchy() <= hierarchy) continue;
    logDebug(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        descendant->sessionID());
    descendant->updateCombinedSessionID();
    descendant->syncReportingStates();
    if ((ancestorAggregates || session.hasAggregator()) && descendant->hasAggregator())
      descendant->shutdownSessionAggregation();
  }
}

}  // namespace corvid
