#include "daemon/ChainRegistry.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"

namespace corvid {

namespace {

// What an empty group costs besides its name, roughly.
constexpr std::size_t bytesPerGroup = 96;

std::size_t costOfGroup(const std::string& key) { return key.size() + bytesPerGroup; }

}  // namespace

CorviddSession* getFirstSessionWithHierarchy(std::uint32_t level,
                                             const SessionList& inSessionList) {
  const auto found = std::ranges::find_if(inSessionList, [level](const auto& session) {
    return static_cast<std::uint32_t>(session->getSessionHierarchy()) == level;
  });
  return found == inSessionList.end() ? nullptr : found->get();
}

std::optional<std::string> joinedSessionIDsAbove(std::int32_t level, const SessionList& sessions) {
  std::optional<std::string> joined;
  while (level > 0) {
    const auto* const parent =
        getFirstSessionWithHierarchy(static_cast<std::uint32_t>(--level), sessions);
    if (!parent) {
      logInfo(
          "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '{}'",
          orNull(joined));
      break;
    }
    joined = joined ? parent->sessionIDString() + "." + *joined : parent->sessionIDString();
  }
  return joined;
}

// Only the levels that occur are looked at, because the configuration may number them sparsely.
CorviddSession* topmostAggregatorAbove(std::int32_t level, const SessionList& sessions) {
  CorviddSession* topmost = nullptr;
  for (const auto& candidate : sessions) {
    if (!candidate->hasAggregator()) continue;
    const std::int32_t candidates = candidate->getSessionHierarchy();
    if (candidates < 0 || candidates >= level) continue;
    if (getFirstSessionWithHierarchy(static_cast<std::uint32_t>(candidates), sessions) !=
        candidate.get())
      continue;
    topmost = candidate.get();
    level = candidates;
  }
  return topmost;
}

const SessionList* ChainRegistry::group(const std::string& key, const CorviddSession& session,
                                        SessionList& room) const {
  const auto found = _correlatedSessions.find(key);
  if (found == _correlatedSessions.end()) return nullptr;
  const auto mayMeet = [&](const auto& member) { return session.mayMeet(*member); };
  const SessionList* sessions = &found->second;
  if (!std::ranges::all_of(*sessions, mayMeet)) {
    std::ranges::copy_if(*sessions, std::back_inserter(room), mayMeet);
    sessions = &room;
  }
  return sessions->empty() ? nullptr : sessions;
}

void ChainRegistry::join(const std::string& key, std::shared_ptr<CorviddSession> session) {
  leave(*session);
  if (!_correlatedSessions.contains(key)) makeRoomFor(key);
  _correlatedSessions[key].push_back(std::move(session));
}

void ChainRegistry::leave(const CorviddSession& session) {
  for (auto& [key, sessions] : _correlatedSessions)
    std::erase_if(sessions, [&](const auto& member) { return member.get() == &session; });
}

void ChainRegistry::makeRoomFor(const std::string& key) {
  if (_groupBytes + costOfGroup(key) > keptGroupBytes) {
    std::erase_if(_correlatedSessions, [](const auto& entry) { return entry.second.empty(); });
    _groupBytes = 0;
    for (const auto& [kept, sessions] : _correlatedSessions) _groupBytes += costOfGroup(kept);
  }
  _groupBytes += costOfGroup(key);
}

}  // namespace corvid
