// What a session asks of the agent that accepted it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/Mutex.h"
#include "base/Result.h"
#include "base/Value.h"
#include "protocol/Reason.h"
#include "status/Ledger.h"

namespace corvid {

class CorviddSession;

// Threads   Any session's thread. The agent's re-entrant mutex serialises what changes chains:
//           getAncestorWithAggregatorForSession must be called with it held, the others take it.
class CorviddSessionDelegate {
 public:
  virtual ~CorviddSessionDelegate() = default;

  // The storebag section of the session's client type, from the cache or fetched; may block. After
  // a failure the client's call must go unanswered.
  virtual Result<std::optional<Dictionary>> storebagForSession(CorviddSession& session) = 0;
  // The version that belongs to it. Never fetches.
  virtual std::optional<std::string> storebagVersionForSession(CorviddSession& session) = 0;
  // Why there is none, when the last answer was nothing or a failure.
  virtual Reason whyNoStorebagForSession(CorviddSession& session) = 0;
  // Moves the session into the group of its user info.
  virtual void userInfoUpdatedForSession(CorviddSession& session) = 0;
  // The topmost ancestor that aggregates, or null. Valid while the mutex is held.
  virtual CorviddSession* getAncestorWithAggregatorForSession(CorviddSession& session)
      REQUIRES(mutex()) = 0;
  // Has the session and everything below it take what follows from their places in the chain.
  virtual void updateDownstreamSessions(CorviddSession& session) = 0;

  // The account of the events of all sessions.
  virtual const std::shared_ptr<Ledger>& ledger() const = 0;
  // Of the session that asks, in order of acceptance, from 1.
  virtual std::uint64_t nextSessionNumber() = 0;

  virtual RecursiveMutex& mutex() = 0;
  // For log lines.
  virtual std::string description() const = 0;
};

}  // namespace corvid
