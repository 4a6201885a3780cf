// Accepts clients, and answers their sessions: storebags from the cache, places in a chain.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/Mutex.h"
#include "base/Value.h"
#include "config/Environment.h"
#include "daemon/ChainRegistry.h"
#include "daemon/FetchPace.h"
#include "daemon/StorebagCache.h"
#include "protocol/Connection.h"
#include "session/CorviddSession.h"
#include "session/CorviddSessionDelegate.h"

namespace corvid {

class Platform;

// The one listener delegate of the process, and the delegate of every session it accepts.
//
// Threads   shouldAcceptNewConnection: the accept thread; it never waits for the agent's mutex,
//           which is held during a fetch. Everything else: any session's thread.
// Locks     `_sessionListMutex` guards the list of live sessions and the keep-alive decision,
//           `_mutex` the chains and the storebag cache. They are never held together. A session
//           holds `_mutex` over several calls, each of which takes it, hence it is re-entrant. A
//           walk over a chain holds it too and tells each session what follows from its place;
//           what a walk tells makes no session come back.
// Ownership Sessions hold the agent, the agent its live sessions: the circle opens when a session's
//           connection is invalidated. No session is released for the last time under a lock.
class CorviddAgent final : public ListenerDelegate,
                           public CorviddSessionDelegate,
                           public std::enable_shared_from_this<CorviddAgent> {
 public:
  static constexpr std::string_view requiredEntitlement = "com.halcyon.private.corvidd";

  static std::shared_ptr<CorviddAgent> create(
      StorebagCache::Fetch fetch = fetchStorebagForEnvironmentAndClientType);

  // ListenerDelegate
  bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) override
      EXCLUDES(_sessionListMutex);
  void tooManyConnections() override {
    _ledger->countRefusedConnection(Reason::tooManyConnections);
  }

  // CorviddSessionDelegate
  Result<std::optional<Dictionary>> storebagForSession(CorviddSession& session) override;
  std::optional<std::string> storebagVersionForSession(CorviddSession& session) override;
  Reason whyNoStorebagForSession(CorviddSession& session) override;
  const std::shared_ptr<Ledger>& ledger() const override { return _ledger; }
  std::uint64_t nextSessionNumber() override { return ++_lastSession; }
  void userInfoUpdatedForSession(CorviddSession& session) override;
  CorviddSession* getAncestorWithAggregatorForSession(CorviddSession& session) override
      REQUIRES(_mutex);
  void updateDownstreamSessions(CorviddSession& session) override;
  RecursiveMutex& mutex() override RETURN_CAPABILITY(_mutex) { return _mutex; }
  std::string description() const override;

  // For those who only look: none of these waits for a fetch.
  template <class Look>
  void eachSession(Look look) EXCLUDES(_sessionListMutex) {
    const MutexLock lock(_sessionListMutex);
    for (const auto& session : _sessionList) look(*session);
  }
  std::size_t sessionCount() const { return _sessionCount; }
  // `changed` is called when a session comes or goes; it may not block. Before the first one.
  void notifyOfSessions(std::function<void()> changed) { _sessionsChanged = std::move(changed); }
  StorebagBoard& storebags() { return *_board; }

  // The session ID strings of the ancestors, top first, joined by "."; nothing without a parent.
  std::optional<std::string> parentSessionIDStringForSession(CorviddSession& session);
  // Null without one. Valid while the mutex is held.
  CorviddSession* parentSessionForChild(CorviddSession& session) REQUIRES(_mutex);

 private:
  explicit CorviddAgent(StorebagCache::Fetch fetch);

  void addSession(std::shared_ptr<CorviddSession> session) EXCLUDES(_sessionListMutex);
  void connectionInvalidated(const std::shared_ptr<CorviddSession>& session)
      EXCLUDES(_sessionListMutex);
  void takeFromParent(CorviddSession& session) REQUIRES(_mutex);

  Platform& _platform;  // constant
  const std::shared_ptr<Ledger> _ledger;
  const std::shared_ptr<StorebagBoard> _board;
  std::function<void()> _sessionsChanged;
  std::atomic<std::uint64_t> _lastSession{0};

  Mutex _sessionListMutex;
  // Accepted and not yet invalidated, in order of acceptance.
  SessionList _sessionList GUARDED_BY(_sessionListMutex);

  RecursiveMutex _mutex;
  StorebagCache _storebags GUARDED_BY(_mutex);
  FetchPace _pace GUARDED_BY(_mutex);
  ChainRegistry _chains GUARDED_BY(_mutex);

  // Sizes of list and chains, for the log line of an acceptance, which must not wait for a fetch.
  std::atomic<std::size_t> _sessionCount{0};
  std::atomic<std::size_t> _groupCount{0};
};

}  // namespace corvid
