// Which sessions belong together, and who stands above whom.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/CorviddSession.h"

namespace corvid {

// A group of sessions, in order of joining. Of each level the first session counts.
using SessionList = std::vector<std::shared_ptr<CorviddSession>>;

// Null where the level is missing.
CorviddSession* getFirstSessionWithHierarchy(std::uint32_t level, const SessionList& inSessionList);
// The session ID strings of the levels above `level`, top first, joined by "."; begins below a gap,
// which is logged.
std::optional<std::string> joinedSessionIDsAbove(std::int32_t level, const SessionList& sessions);
// The first session of the topmost level above `level` whose first session aggregates, or null.
CorviddSession* topmostAggregatorAbove(std::int32_t level, const SessionList& sessions);

// The groups, by the key that the sessions' client and service names make. Sessions of one group
// that may not meet, because their clients are of different users, know nothing of each other.
// Levels and aggregators are asked of the sessions at each look, because they change with a
// session's backends and client.
//
// Not synchronised: the agent's mutex guards it.
class ChainRegistry {
 public:
  // Empty groups are kept until all groups together cost about this much: their names come from
  // clients.
  static constexpr std::size_t keptGroupBytes = std::size_t{1} << 20;

  // Those of the group that the session may meet, in order of joining; null when there are none.
  // Where some are left out the list is made in `room`.
  const SessionList* group(const std::string& key, const CorviddSession& session,
                           SessionList& room) const;
  // Makes the session the last of its group, and of no other.
  void join(const std::string& key, std::shared_ptr<CorviddSession> session);
  // Takes the session out of every group, not only that of its present user info, which may have
  // been replaced since.
  void leave(const CorviddSession& session);
  std::size_t groupCount() const { return _correlatedSessions.size(); }

 private:
  void makeRoomFor(const std::string& key);

  std::map<std::string, SessionList> _correlatedSessions;
  std::size_t _groupBytes = 0;
};

}  // namespace corvid
