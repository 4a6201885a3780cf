#include "backends/https/HeldRecords.h"

#include <utility>

namespace corvid {

HeldRecords::~HeldRecords() { _account->dropHeld(takeEvents(), Reason::notFlushed); }

void HeldRecords::add(EventRecord record, std::size_t bytes, const Making& making,
                      EventMark event) {
  while (overflowsWith(bytes)) dropOldest();
  (void)hasMemoryFor(_bytes + bytes);
  if (_records.empty()) {
    _making = making;
    _isUniform = true;
  } else if (_making != making) {
    _isUniform = false;
  }
  _bytes += bytes;
  _records.push_back({std::move(record), bytes, event});
}

void HeldRecords::setForAll(const char* key, const Value& value) {
  _isUniform = false;
  for (Held& held : _records) held.record.whole().set(key, value);
}

void HeldRecords::addUserInfo(const Making& making) {
  // The filters see no method in the user info alone, as they did in the record.
  if (_isUniform && _making == making && making.filters->ignoreMethodsFor(*making.userInfo)) return;
  Dictionary userInfo = *making.userInfo;
  making.filters->apply(userInfo);
  const std::size_t growth = footprint(userInfo);
  while (_records.size() > 1 && _bytes + _records.size() * growth > messageByteLimit) dropOldest();
  for (Held& held : _records) held.record.whole().addEntriesFrom(userInfo);
}

void HeldRecords::dropOldest() {
  _account->dropHeld({_records.front().event}, Reason::overLimit);
  _bytes -= _records.front().bytes;
  _records.pop_front();
  ++_dropped;
}

Shipment HeldRecords::takeInto(std::vector<EventRecord>& records) {
  records.reserve(records.size() + _records.size());
  for (Held& held : _records) records.push_back(std::move(held.record));
  return _account->shipHeld(takeEvents());
}

std::vector<EventMark> HeldRecords::takeEvents() {
  std::vector<EventMark> events;
  events.reserve(_records.size());
  for (const Held& held : _records) events.push_back(held.event);
  _records.clear();
  _bytes = 0;
  return events;
}

bool HeldRecords::hasMemoryFor(std::size_t bytes) {
  constexpr std::size_t piece = std::size_t{64} << 10;
  const std::size_t has = _memory.amount();
  if (bytes <= has) return true;
  const std::size_t more = bytes - has;
  return (more < piece && _memory.grow(piece)) || _memory.grow(more);
}

}  // namespace corvid
