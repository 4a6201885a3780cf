#include "daemon/StorebagBoard.h"

namespace corvid {

void StorebagBoard::set(const std::string& name, StorebagStanding standing) {
  const MutexLock lock(_mutex);
  _standings[name] = std::move(standing);
  if (_changed) _changed();
}

StorebagStanding StorebagBoard::of(const std::string& name) const {
  const MutexLock lock(_mutex);
  const auto found = _standings.find(name);
  StorebagStanding standing = found == _standings.end() ? StorebagStanding() : found->second;
  standing.refreshIsWished = _wished.contains(name);
  return standing;
}

std::map<std::string, StorebagStanding> StorebagBoard::all() const {
  const MutexLock lock(_mutex);
  auto standings = _standings;
  for (auto& [name, standing] : standings) standing.refreshIsWished = _wished.contains(name);
  return standings;
}

void StorebagBoard::wishRefresh(const std::string& name) {
  const MutexLock lock(_mutex);
  _wished.insert(name);
}

void StorebagBoard::forgetPauses() {
  const MutexLock lock(_mutex);
  ++_timesForgotten;
  for (const auto& [name, standing] : _standings)
    if (standing.fault) _wished.insert(name);
}

std::uint64_t StorebagBoard::timesForgotten() const {
  const MutexLock lock(_mutex);
  return _timesForgotten;
}

bool StorebagBoard::refreshIsWished(const std::string& name) const {
  const MutexLock lock(_mutex);
  return _wished.contains(name);
}

void StorebagBoard::refreshBegins(const std::string& name) {
  const MutexLock lock(_mutex);
  _wished.erase(name);
}

}  // namespace corvid
