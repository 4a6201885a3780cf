#include "status/DecisionWatcher.h"

#include <utility>

namespace corvid {

bool DecisionWatcher::hear(const Decision& decision) {
  if (_wishes.session && sessionOf(decision) != *_wishes.session) return true;
  bool isFirst = false;
  {
    const MutexLock lock(_mutex);
    const std::size_t bytes = recordBytesOf(decision);
    if (_waiting.size() >= mostWaiting || _recordBytes + bytes > mostRecordBytes) {
      ++_lost;
      return false;
    }
    isFirst = _waiting.empty();
    _recordBytes += bytes;
    _waiting.push_back(decision);
  }
  if (isFirst && _wake) _wake();
  return true;
}

std::vector<Dictionary> DecisionWatcher::take() {
  std::vector<Decision> waiting;
  std::size_t lost = 0;
  {
    const MutexLock lock(_mutex);
    waiting.swap(_waiting);
    lost = std::exchange(_lost, 0);
    _recordBytes = 0;
  }
  std::vector<Dictionary> lines;
  lines.reserve(waiting.size() + 1);
  for (const Decision& decision : waiting) lines.push_back(toDictionary(decision, wantsRecords()));
  if (lost > 0) lines.push_back({{"lost", static_cast<std::int64_t>(lost)}});
  return lines;
}

std::size_t DecisionWatcher::recordBytesOf(const Decision& decision) const {
  const auto* const event = std::get_if<EventDecision>(&decision);
  if (!wantsRecords() || event == nullptr) return 0;
  std::size_t bytes = 0;
  for (const Verdict& verdict : event->verdicts)
    if (verdict.record) bytes += footprint(*verdict.record);
  return bytes;
}

}  // namespace corvid
