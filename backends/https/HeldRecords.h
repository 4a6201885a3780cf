// The records that wait for a flush, oldest first, within bounds.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backends/https/EventFilters.h"
#include "backends/https/EventRecord.h"
#include "base/Value.h"
#include "platform/SharedBudget.h"
#include "status/Ledger.h"

namespace corvid {

// Holds records up to `recordLimit` and, estimated in memory, `byteLimit` and what the client's
// user has left; past any the oldest are dropped and counted. A single record past the limits is
// held alone.
//
// Threads: not synchronised.
class HeldRecords {
 public:
  static constexpr std::size_t recordLimit = 16'384;
  static constexpr std::size_t byteLimit = std::size_t{4} << 20;
  // All records of one message, once the user info is in each.
  static constexpr std::size_t messageByteLimit = 6 * byteLimit;

  // What a record has got besides its event.
  struct Making {
    std::shared_ptr<const Dictionary> userInfo;  // null where there was none
    std::shared_ptr<const EventFilters> filters;
    bool operator==(const Making&) const = default;
  };

  // `account` hears what becomes of the records' events.
  HeldRecords(SharedBudget::Share memory, std::shared_ptr<LedgerAccount> account)
      : _memory(std::move(memory)), _account(std::move(account)) {}
  // Drops what is left as not flushed.
  ~HeldRecords();
  HeldRecords(const HeldRecords&) = delete;
  HeldRecords& operator=(const HeldRecords&) = delete;

  // Whether adding a record of that footprint would drop others.
  bool overflowsWith(std::size_t bytes) {
    return !_records.empty() && (_records.size() >= recordLimit || _bytes + bytes > byteLimit ||
                                 !hasMemoryFor(_bytes + bytes));
  }
  // Whether a single record is held without memory for it.
  bool exceedsMemory() const { return _bytes > _memory.amount(); }
  // `event` has been booked as held.
  void add(EventRecord record, std::size_t bytes, const Making& making, EventMark event);
  void setForAll(const char* key, const Value& value);
  // Gives each record the user info, filtered, whose values win; a record that has just this one
  // already stays as it is. Where all would grow past `messageByteLimit` the oldest are dropped.
  void addUserInfo(const Making& making);
  void dropOldest();
  // Moves all behind `records`; their events are now on their way.
  Shipment takeInto(std::vector<EventRecord>& records);

  // How many records were dropped so far.
  std::size_t dropped() const { return _dropped; }
  std::size_t size() const { return _records.size(); }
  std::size_t bytes() const { return _bytes; }

 private:
  struct Held {
    EventRecord record;
    std::size_t bytes;
    EventMark event;
  };

  std::vector<EventMark> takeEvents();

  // Takes memory in larger pieces than a record, as long as there is.
  bool hasMemoryFor(std::size_t bytes);

  SharedBudget::Share _memory;
  const std::shared_ptr<LedgerAccount> _account;
  std::deque<Held> _records;
  std::size_t _bytes = 0;
  std::size_t _dropped = 0;
  Making _making;          // of the first record
  bool _isUniform = true;  // it is that of all, and none was rewritten
};

}  // namespace corvid
