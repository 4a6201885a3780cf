#include "backends/https/HeldRecords.h"

#include <utility>

#include "base/Value.h"

namespace corvid {

bool HeldRecords::overflowsWith(const Dictionary& record) const {
  return overflows(footprint(record));
}

void HeldRecords::add(Dictionary record) {
  const std::size_t bytes = footprint(record);
  while (overflows(bytes)) dropOldest();
  _bytes += bytes;
  _records.push_back({std::move(record), bytes});
}

void HeldRecords::setForAll(const char* key, const Value& value) {
  for (Held& held : _records) held.record.set(key, value);
}

void HeldRecords::makeRoomToGrowBy(std::size_t growth) {
  while (_records.size() > 1 && _bytes + _records.size() * growth > messageByteLimit) dropOldest();
}

void HeldRecords::dropOldest() {
  _bytes -= _records.front().bytes;
  _records.pop_front();
  ++_dropped;
}

std::vector<Dictionary> HeldRecords::take() && {
  std::vector<Dictionary> records;
  records.reserve(_records.size());
  for (Held& held : _records) records.push_back(std::move(held.record));
  return records;
}

}  // namespace corvid
