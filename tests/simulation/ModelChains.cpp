// Who stands above whom, and what follows from it: docs/chains.md.
#include <algorithm>
#include <cctype>
#include <utility>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tests/simulation/Model.h"

namespace corvid::simulation {

namespace {

std::optional<std::string> infoAt(const std::optional<Dictionary>& info, std::string_view key) {
  return info ? textAt(*info, key) : std::nullopt;
}

}  // namespace

std::string Model::keyOf(const Session& session) {
  std::string key = infoAt(session.userInfo, kCorvidUserInfoClientName).value_or("") + ":" +
                    infoAt(session.userInfo, kCorvidUserInfoServiceName).value_or("");
  std::ranges::transform(key, key.begin(), [](unsigned char c) { return std::tolower(c); });
  return key;
}

std::int32_t Model::levelOf(const Session& session) {
  if (session.backends)
    for (const char* const name : {"httpPost2", "httpPost"})
      if (const auto found = session.backends->find(name); found != session.backends->end())
        return found->second->hierarchy();
  return 0;
}

Model::Group Model::groupOf(const Session& session) const {
  Group group;
  const auto found = _groups.find(keyOf(session));
  if (found == _groups.end()) return group;
  std::ranges::copy_if(found->second, std::back_inserter(group), [&](const Session* other) {
    return other->user == session.user || (other->meetsOthers && session.meetsOthers);
  });
  return group;
}

Model::Session* Model::firstAt(std::int32_t level, const Group& group) {
  const auto found =
      std::ranges::find_if(group, [&](const Session* other) { return levelOf(*other) == level; });
  return found == group.end() ? nullptr : *found;
}

Model::Session* Model::aggregatorAbove(const Session& session) const {
  if (!session.userInfo) return nullptr;
  const Group group = groupOf(session);
  for (std::int32_t level = 0; level < levelOf(session); ++level)
    if (Session* const found = firstAt(level, group); found && found->aggregates) return found;
  return nullptr;
}

void Model::receive(Session& session, const std::optional<Dictionary>& userInfo) {
  bool changed = true;
  if (session.userInfo) {
    if (!userInfo && wantsUserInfo(session.info)) return;
    const auto differs = [&](std::string_view key) {
      return infoAt(session.userInfo, key) != infoAt(userInfo, key);
    };
    changed =
        !userInfo || differs(kCorvidUserInfoClientName) || differs(kCorvidUserInfoServiceName);
  } else if (!userInfo) {
    return;
  }
  session.userInfo = userInfo;
  if (session.backends)
    for (const auto& [name, backend] : *session.backends) backend->setUserInfo(userInfo);
  if (changed) settle(session);
}

void Model::settle(Session& session) {
  if (session.userInfo) join(session);
  if (session.backends)
    for (const auto& [name, backend] : *session.backends) backend->updateState(_facts);
  updateDownstream(session);
}

void Model::join(Session& session) {
  leaveGroups(session);
  _groups[keyOf(session)].push_back(&session);
}

void Model::leaveGroups(const Session& session) {
  for (auto& [key, group] : _groups)
    std::erase_if(group, [&](const Session* other) { return other == &session; });
}

void Model::updateDownstream(Session& session) {
  if (!session.userInfo) return;
  const std::int32_t level = levelOf(session);
  follow(session);
  const bool isBelow = level >= 1 && aggregatorAbove(session);
  if (isBelow) stopAggregation(session);
  for (Session* const other : groupOf(session)) {
    if (levelOf(*other) <= level) continue;
    follow(*other);
    if ((isBelow || session.aggregates) && other->aggregates) stopAggregation(*other);
  }
}

void Model::follow(Session& session) {
  if (!session.backends) return;
  const std::int32_t level = levelOf(session);
  const Group group = groupOf(session);
  if (level <= 0 || std::ranges::find(group, &session) == group.end()) return;
  std::string above;
  for (std::int32_t at = level - 1; at >= 0; --at) {
    const Session* const found = firstAt(at, group);
    if (!found) break;
    above = above.empty() ? found->idString : found->idString + "." + above;
  }
  if (!above.empty())
    for (const auto& [name, backend] : *session.backends)
      backend->setCombinedID(above + "." + session.idString);
  const Session* const parent = firstAt(level - 1, group);
  if (!parent) return;
  for (const auto& [name, backend] : *session.backends) {
    const ModelBackend* its = nullptr;
    if (parent->backends && parent->backends->contains(name))
      its = parent->backends->at(name).get();
    backend->follow(its);
  }
}

void Model::stopAggregation(Session& session) {
  if (session.aggregates) deliver(session, std::nullopt, {}, 0);
  session.aggregates = false;
}

void Model::aggregate(Session& session, const Message& message) {
  Message merged = message;
  if (merged.payload && session.userInfo) merged.payload->addEntriesFrom(*session.userInfo);
  if (const Session* const above = aggregatorAbove(session))
    deliver(*above, session.info, merged, _facts.now);
  else if (session.aggregates)
    deliver(session, session.info, merged, _facts.now);
}

void Model::deliver(const Session& to, const std::optional<Dictionary>& message,
                    const Message& content, double timestamp) {
  // Nobody hears what is said to a client that has gone.
  if (!_sessions.contains(to.client)) return;
  _step.deliveries.push_back(
      {to.client, message, timestamp, content.category, content.type, content.payload});
}

}  // namespace corvid::simulation
