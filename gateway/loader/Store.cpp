#include "gateway/loader/Store.h"

#include <map>
#include <optional>

#include "gateway/loader/Rows.h"
#include "gateway/loader/Schema.h"

namespace corvid::fleet {

namespace {

// An array of texts as PostgreSQL reads it.
std::string arrayOf(const std::map<std::string, std::string>& texts, bool ofKeys) {
  std::string array = "{";
  for (const auto& [key, value] : texts) {
    if (array.size() > 1) array += ',';
    array += '"';
    for (const char byte : ofKeys ? key : value) {
      if (byte == '"' || byte == '\\') array += '\\';
      array += byte;
    }
    array += '"';
  }
  return array + '}';
}

}  // namespace

struct Store::Lines {
  std::string events;
  std::string logData;
  std::string rejected;

  void copyInto(Database& database) const {
    if (!events.empty()) database.copy(eventColumns, events);
    if (!logData.empty()) database.copy(logDataColumns, logData);
    if (!rejected.empty()) database.copy(rejectedColumns, rejected);
  }
};

StoredCounts& StoredCounts::operator+=(const StoredCounts& other) {
  stored += other.stored;
  repeated += other.repeated;
  rejected += other.rejected;
  rows += other.rows;
  return *this;
}

Store::Store(const std::string& target) : _database(target) { makeSchema(_database); }

void Store::needDay(const std::string& day) {
  if (_days.contains(day)) return;
  makePartitions(_database, day);
  _days.insert(day);
}

StoredCounts Store::store(const std::vector<LoggedMessage>& messages) {
  std::vector<const LogMessage*> all;
  for (const LoggedMessage& logged : messages) {
    needDay(timesOf(logged.message).day);
    all.push_back(&logged.message);
  }
  try {
    return storeTogether(all);
  } catch (const DatabaseError& error) {
    if (!error.isOfTheData()) throw;
  }
  // One of them spoils the others; which one is found out.
  StoredCounts counts;
  for (const LogMessage* const message : all) counts += storeAlone(*message);
  return counts;
}

std::set<std::string> Store::takeNew(const std::vector<const LogMessage*>& messages) {
  // In the same order everywhere, so that no two loaders wait for each other.
  std::map<std::string, std::string> received;
  for (const LogMessage* const message : messages)
    received.emplace(message->id, timesOf(*message).received);
  std::set<std::string> fresh;
  for (
      const auto& row : _database.run(
          "INSERT INTO corvid.message (id, received) "
          "SELECT * FROM unnest($1::text[], $2::timestamptz[]) ON CONFLICT DO NOTHING RETURNING id",
          {arrayOf(received, true), arrayOf(received, false)}))
    fresh.insert(*row.at(0));
  return fresh;
}

StoredCounts Store::storeTogether(const std::vector<const LogMessage*>& messages) {
  StoredCounts counts;
  Transaction transaction(_database);
  std::set<std::string> fresh = takeNew(messages);
  Lines lines;
  for (const LogMessage* const message : messages) {
    if (fresh.erase(message->id) == 0) {
      ++counts.repeated;
      continue;
    }
    const Times times = timesOf(*message);
    try {
      if (message->stream == "logs") {
        appendLogDataLine(lines.logData, *message, times);
        ++counts.rows;
      } else {
        counts.rows += appendEventLines(lines.events, *message, times);
      }
      ++counts.stored;
    } catch (const std::invalid_argument& fault) {
      appendRejectedLine(lines.rejected, *message, times, fault.what());
      ++counts.rejected;
    }
  }
  lines.copyInto(_database);
  transaction.commit();
  return counts;
}

StoredCounts Store::storeAlone(const LogMessage& message) {
  std::string reason;
  try {
    return storeTogether({&message});
  } catch (const DatabaseError& error) {
    if (!error.isOfTheData()) throw;
    reason = error.what();
  }
  StoredCounts counts;
  Transaction transaction(_database);
  if (takeNew({&message}).empty()) {
    ++counts.repeated;
  } else {
    Lines lines;
    appendRejectedLine(lines.rejected, message, timesOf(message), reason);
    lines.copyInto(_database);
    ++counts.rejected;
  }
  transaction.commit();
  return counts;
}

}  // namespace corvid::fleet
