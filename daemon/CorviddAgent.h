// Accepts clients, keeps the registry of live sessions and their chains, and caches storebags.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Mutex.h"
#include "base/Value.h"
#include "config/Environment.h"
#include "protocol/Connection.h"
#include "session/CorviddSession.h"
#include "session/CorviddSessionDelegate.h"

namespace corvid {

// The one listener delegate of the process, and the delegate of every session it accepts.
//
// Threads   shouldAcceptNewConnection: the accept thread; it never waits for the agent's mutex,
//           which is held during a fetch. Everything else: any session's thread.
// Locks     `_sessionListMutex` guards the list of live sessions and the keep-alive decision,
//           `_mutex` the groups and the storebag cache. They are never held together. Sessions are
//           called with `_mutex` held and may come back, hence it is re-entrant.
// Ownership Sessions hold the agent, the agent its live sessions: the circle opens when a session's
//           connection is invalidated. No session is released for the last time under a lock.
// Errors    What the fetch throws passes through storebagForSession: the lock is released and the
//           record of the client type stays as it was.
class CorviddAgent final : public ListenerDelegate,
                           public CorviddSessionDelegate,
                           public std::enable_shared_from_this<CorviddAgent> {
 public:
  // As fetchStorebagForEnvironmentAndClientType.
  using StorebagFetch = std::function<std::optional<Dictionary>(
      std::int32_t clientType, std::int32_t& maxAge, std::optional<std::string>& version,
      bool& notModified, std::optional<std::string>* lastModified)>;

  static constexpr std::string_view requiredEntitlement = "com.halcyon.private.corvidd";
  // Least time between a failed fetch and the next one for the same client type name.
  static constexpr std::int32_t secondsBetweenAttempts = 900;
  // Empty groups are kept until all groups together cost about this much: their names come from
  // clients.
  static constexpr std::size_t keptGroupBytes = std::size_t{1} << 20;

  static std::shared_ptr<CorviddAgent> create(
      StorebagFetch fetch = fetchStorebagForEnvironmentAndClientType);

  // ListenerDelegate
  bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) override
      EXCLUDES(_sessionListMutex);

  // CorviddSessionDelegate
  std::optional<Dictionary> storebagForSession(CorviddSession& session) override;
  std::optional<std::string> storebagVersionForSession(CorviddSession& session) override;
  std::optional<std::string> parentSessionIDStringForSession(CorviddSession& session) override;
  void userInfoUpdatedForSession(CorviddSession& session) override;
  std::shared_ptr<CorviddSession> getAncestorWithAggregatorForSession(
      CorviddSession& session) override REQUIRES(_mutex);
  void updateDownstreamSessions(CorviddSession& session) override;
  std::shared_ptr<CorviddSession> parentSessionForChild(CorviddSession& session) override
      REQUIRES(_mutex);
  RecursiveMutex& mutex() override RETURN_CAPABILITY(_mutex) { return _mutex; }
  std::string description() const override;

 private:
  using SessionList = std::vector<std::shared_ptr<CorviddSession>>;

  explicit CorviddAgent(StorebagFetch fetch) : _fetch(std::move(fetch)) {}

  // Acceptance.
  void addSession(std::shared_ptr<CorviddSession> session) EXCLUDES(_sessionListMutex);
  void connectionInvalidated(const std::shared_ptr<CorviddSession>& session)
      EXCLUDES(_sessionListMutex);

  // Registry and hierarchy.
  static std::shared_ptr<CorviddSession> getFirstSessionWithHierarchy(
      std::uint32_t level, const SessionList& inSessionList);
  // The group under the key; nullptr when it is missing or empty.
  const SessionList* group(const std::string& key) const REQUIRES(_mutex);
  SessionList& groupMadeIfMissing(const std::string& key) REQUIRES(_mutex);
  void removeFromGroups(const CorviddSession& session) REQUIRES(_mutex);

  // Storebag cache.
  void fetchAndCacheStorebag(std::int32_t clientType) REQUIRES(_mutex);

  const StorebagFetch _fetch;

  RecursiveMutex _sessionListMutex;
  // Accepted and not yet invalidated, in order of acceptance.
  SessionList _sessionList GUARDED_BY(_sessionListMutex);

  RecursiveMutex _mutex;
  // Cache records by client type name; the keys of a record are those of the storebag source file.
  std::map<std::string, Dictionary> _cachedStorebags GUARDED_BY(_mutex);
  // Sessions that share one client and service name, in order of joining.
  std::map<std::string, SessionList> _correlatedSessions GUARDED_BY(_mutex);
  std::size_t _groupBytes GUARDED_BY(_mutex) = 0;

  // Sizes of list and groups, for the log line of an acceptance, which must not wait for a fetch.
  std::atomic<std::size_t> _sessionCount{0};
  std::atomic<std::size_t> _groupCount{0};
};

}  // namespace corvid
