// Messages of the log on their way into the database.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "gateway/loader/Database.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Each message counts once: stored + repeated + rejected are the messages given.
struct StoredCounts {
  std::size_t stored = 0;
  std::size_t repeated = 0;  // its ID stands there
  std::size_t rejected = 0;  // kept apart with its reason
  std::size_t rows = 0;      // of events and log data

  StoredCounts& operator+=(const StoredCounts& other);
};

// Any number of stores write into one database. One thread.
class Store {
 public:
  // Makes the schema where it is missing. DatabaseError where that fails.
  explicit Store(const std::string& target);

  // All of them or none, with their IDs in the same transaction: one whose ID stands there already
  // is not stored again, whoever stored it. What cannot be a row is kept apart. DatabaseError where
  // the database is at fault.
  StoredCounts store(const std::vector<LoggedMessage>& messages);

  Database& database() { return _database; }

 private:
  struct Lines;
  StoredCounts storeTogether(const std::vector<const LogMessage*>& messages);
  StoredCounts storeAlone(const LogMessage& message);
  std::set<std::string> takeNew(const std::vector<const LogMessage*>& messages);
  void needDay(const std::string& day);

  Database _database;
  std::set<std::string> _days;  // that have partitions
};

}  // namespace corvid::fleet
