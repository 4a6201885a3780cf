// The records that wait for a flush, oldest first, within bounds.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

#include "base/Value.h"

namespace corvid {

// Holds records up to `recordLimit` and, estimated in memory, `byteLimit`; past either the oldest
// are dropped and counted. A single record past the limit is held alone.
//
// Threads: not synchronised.
class HeldRecords {
 public:
  static constexpr std::size_t recordLimit = 16'384;
  static constexpr std::size_t byteLimit = std::size_t{4} << 20;
  // All records of one message, once the user info is in each.
  static constexpr std::size_t messageByteLimit = 8 * byteLimit;

  // Whether adding `record` would drop others.
  bool overflowsWith(const Dictionary& record) const;
  void add(Dictionary record);
  void setForAll(const char* key, const Value& value);
  // Drops the oldest until all, each grown by `growth` bytes, stay within `messageByteLimit`.
  void makeRoomToGrowBy(std::size_t growth);

  // How many records were dropped so far.
  std::size_t dropped() const { return _dropped; }
  std::size_t size() const { return _records.size(); }
  std::vector<Dictionary> take() &&;

 private:
  struct Held {
    Dictionary record;
    std::size_t bytes;
  };
  bool overflows(std::size_t bytes) const {
    return !_records.empty() && (_records.size() >= recordLimit || _bytes + bytes > byteLimit);
  }

  void dropOldest();

  std::deque<Held> _records;
  std::size_t _bytes = 0;
  std::size_t _dropped = 0;
};

}  // namespace corvid
