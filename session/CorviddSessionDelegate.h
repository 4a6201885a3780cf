// What a session asks of the agent that accepted it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Mutex.h"
#include "base/Value.h"

namespace corvid {

class CorviddSession;

// Threads   Any session's thread. The agent's re-entrant mutex serialises the walks over a chain of
//           sessions. parentSessionForChild and getAncestorWithAggregatorForSession must be called
//           with it held; the others take it themselves.
class CorviddSessionDelegate {
 public:
  virtual ~CorviddSessionDelegate() = default;

  // The storebag section of the session's client type, from the cache or fetched; may block.
  virtual std::optional<Dictionary> storebagForSession(CorviddSession& session) = 0;
  // The version that belongs to it. Never fetches.
  virtual std::optional<std::string> storebagVersionForSession(CorviddSession& session) = 0;
  // The session ID strings of the ancestors, top first, joined by "."; nothing without a parent.
  virtual std::optional<std::string> parentSessionIDStringForSession(CorviddSession& session) = 0;
  // Moves the session into the group of its user info.
  virtual void userInfoUpdatedForSession(CorviddSession& session) = 0;
  // The topmost ancestor that aggregates.
  virtual std::shared_ptr<CorviddSession> getAncestorWithAggregatorForSession(
      CorviddSession& session) REQUIRES(mutex()) = 0;
  // Brings the session and everything below it up to date after a change.
  virtual void updateDownstreamSessions(CorviddSession& session) = 0;
  virtual std::shared_ptr<CorviddSession> parentSessionForChild(CorviddSession& session)
      REQUIRES(mutex()) = 0;

  virtual RecursiveMutex& mutex() = 0;
  // For log lines.
  virtual std::string description() const = 0;
};

}  // namespace corvid
