#include "daemon/CorviddAgent.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "config/Identifiers.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

std::int32_t clientTypeOf(const CorviddSession& session) {
  const auto info = session.sessionInfo();
  return info ? int32At(*info, kCorvidSessionInfoClientType) : 0;
}

std::string keyOf(const CorviddSession& session) { return clientKey(session.userInfo().get()); }

bool contains(const SessionList& sessions, const CorviddSession& session) {
  return std::ranges::any_of(sessions,
                             [&](const auto& member) { return member.get() == &session; });
}

}  // namespace

CorviddAgent::CorviddAgent(StorebagCache::Fetch fetch)
    : _platform(Platform::current()),
      _ledger(Ledger::create(_platform.clock())),
      _board(std::make_shared<StorebagBoard>()),
      _storebags(std::move(fetch), _board) {}

std::shared_ptr<CorviddAgent> CorviddAgent::create(StorebagCache::Fetch fetch) {
  return std::shared_ptr<CorviddAgent>(new CorviddAgent(std::move(fetch)));
}

std::string CorviddAgent::description() const { return "<CorviddAgent>"; }

bool CorviddAgent::shouldAcceptNewConnection(std::shared_ptr<Connection> connection) {
  const std::string peer = connection->description();
  if (!connection->isEntitledTo(requiredEntitlement)) {
    const auto why = loggingReason(Reason::notEntitled);
    logDebug(
        "listener: new IPC connection {} does not have required corvid entitlement. Closing connection...",
        peer);
    _ledger->countRefusedConnection(Reason::notEntitled);
    return false;
  }
  logDebug(
      "listener: Accepting new IPC connection {} as it has proper entitlement, {}({}) connections.",
      peer, _sessionCount.load(), _groupCount.load());

  auto session = CorviddSession::initWithSessionDelegate(shared_from_this(), connection);
  connection->setExportedObject(session);
  addSession(session);
  connection->setInterruptionHandler([session] {
    logDebug("listener: IPC connection to {} was interrupted", session->description());
  });
  connection->setInvalidationHandler(
      [agent = shared_from_this(), session] { agent->connectionInvalidated(session); });
  connection->resume();
  return true;
}

void CorviddAgent::addSession(std::shared_ptr<CorviddSession> session) {
  const MutexLock lock(_sessionListMutex);
  if (_sessionList.empty()) _platform.keepAlive().beginTransaction();
  _sessionList.push_back(std::move(session));
  _sessionCount = _sessionList.size();
  if (_sessionsChanged) _sessionsChanged();
}

// The handler's own reference outlives the call, so that nothing is destroyed under a lock.
void CorviddAgent::connectionInvalidated(const std::shared_ptr<CorviddSession>& session) {
  logDebug("listener: IPC connection to {} was invalidated", session->description());
  {
    const MutexLock lock(_sessionListMutex);
    if (std::erase(_sessionList, session) > 0 && _sessionList.empty())
      _platform.keepAlive().endTransaction();
    _sessionCount = _sessionList.size();
    if (_sessionsChanged) _sessionsChanged();
  }
  const RecursiveLock lock(_mutex);
  _chains.leave(*session);
}

Result<std::optional<Dictionary>> CorviddAgent::storebagForSession(CorviddSession& session) {
  const std::int32_t clientType = clientTypeOf(session);
  logDebug("storebagForSession: Retrieving storebag for session {} with client type {}",
           session.sessionID(), clientType);
  Clock& clock = _platform.clock();
  // A user who has more fetched than is fair waits before the lock is taken, which all need.
  for (;;) {
    Clock::TimePoint begin;
    {
      const RecursiveLock lock(_mutex);
      const Clock::TimePoint now = clock.steadyNow();
      const bool fetches = _storebags.wouldFetch(clientType, session.user());
      begin = fetches ? _pace.next(session.user(), now) : now;
      if (begin == now) return _storebags.storebag(clientType, session.user());
    }
    while (const auto left = clock.sleepTowards(begin).count())
      std::this_thread::sleep_for(std::chrono::nanoseconds(left));
  }
}

std::optional<std::string> CorviddAgent::storebagVersionForSession(CorviddSession& session) {
  const RecursiveLock lock(_mutex);
  return _storebags.version(clientTypeOf(session));
}

Reason CorviddAgent::whyNoStorebagForSession(CorviddSession& session) {
  const RecursiveLock lock(_mutex);
  return _storebags.whyNone(clientTypeOf(session));
}

void CorviddAgent::userInfoUpdatedForSession(CorviddSession& session) {
  const auto userInfo = session.userInfo();
  if (!userInfo) {
    logInfo("userInfoUpdatedForSession: No user info found for session {}", session.sessionID());
    return;
  }
  const std::string key = clientKey(userInfo.get());
  // Taken before the lock, so that leaving a group never drops the last reference under it.
  const std::shared_ptr<CorviddSession> joining = session.shared_from_this();

  const RecursiveLock lock(_mutex);
  logDebug("userInfoUpdatedForSession: Adding session {} to list for userInfoKey {}",
           session.sessionID(), key);
  _chains.join(key, joining);
  _groupCount = _chains.groupCount();
}

std::optional<std::string> CorviddAgent::parentSessionIDStringForSession(CorviddSession& session) {
  const std::int32_t hierarchy = session.getSessionHierarchy();
  if (hierarchy == 0) return std::nullopt;
  const std::string key = keyOf(session);
  logDebug("parentSessionIDStringForSession: Checking userInfoKey '{}' for session {}", key,
           session.sessionID());

  const RecursiveLock lock(_mutex);
  SessionList room;
  const SessionList* sessions = _chains.group(key, session, room);
  if (!sessions) {
    logError("parentSessionIDStringForSession: ERROR: No sessions found for user info key {}", key);
    return std::nullopt;
  }
  if (!contains(*sessions, session)) {
    logError("parentSessionIDStringForSession: ERROR: Session {} not found for user info key {}",
             session.sessionID(), key);
    return std::nullopt;
  }
  return joinedSessionIDsAbove(hierarchy, *sessions);
}

CorviddSession* CorviddAgent::parentSessionForChild(CorviddSession& session) {
  const std::int32_t hierarchy = session.getSessionHierarchy();
  if (hierarchy == 0) return nullptr;
  const std::string key = keyOf(session);
  logDebug("parentSessionForChild: Checking userInfoKey '{}' for session {}", key,
           session.sessionID());
  SessionList room;
  const SessionList* sessions = _chains.group(key, session, room);
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
  CorviddSession* parent =
      level < 0 ? nullptr
                : getFirstSessionWithHierarchy(static_cast<std::uint32_t>(level), *sessions);
  if (!parent)
    logInfo(
        "parentSessionForChild: Unable to find session with hierarchy of {} for userInfoKey '{}'",
        level, key);
  return parent;
}

CorviddSession* CorviddAgent::getAncestorWithAggregatorForSession(CorviddSession& session) {
  const auto userInfo = session.userInfo();
  if (!userInfo) {
    logInfo("getAncestorWithAggregatorForSession: No user info found for session {}",
            session.sessionID());
    return nullptr;
  }
  const std::int32_t hierarchy = session.getSessionHierarchy();
  if (hierarchy < 1) return nullptr;
  SessionList room;
  const SessionList* sessions = _chains.group(clientKey(userInfo.get()), session, room);
  return sessions ? topmostAggregatorAbove(hierarchy, *sessions) : nullptr;
}

void CorviddAgent::takeFromParent(CorviddSession& session) {
  session.updateCombinedSessionID(parentSessionIDStringForSession(session));
  session.syncReportingStates(parentSessionForChild(session));
}

void CorviddAgent::updateDownstreamSessions(CorviddSession& session) {
  const auto userInfo = session.userInfo();
  if (!userInfo) {
    logInfo("updateDownstreamSessions: No user info found for session {}", session.sessionID());
    return;
  }
  const std::int32_t hierarchy = session.getSessionHierarchy();

  const RecursiveLock lock(_mutex);
  takeFromParent(session);
  const bool ancestorAggregates = hierarchy >= 1 && getAncestorWithAggregatorForSession(session);
  if (ancestorAggregates) session.shutdownSessionAggregation();

  SessionList room;
  const SessionList* sessions = _chains.group(clientKey(userInfo.get()), session, room);
  if (!sessions) return;
  for (const auto& descendant : *sessions) {
    if (descendant->getSessionHierarchy() <= hierarchy) continue;
    logDebug(
        "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session {}",
        descendant->sessionID());
    takeFromParent(*descendant);
    if ((ancestorAggregates || session.hasAggregator()) && descendant->hasAggregator())
      descendant->shutdownSessionAggregation();
  }
}

}  // namespace corvid
