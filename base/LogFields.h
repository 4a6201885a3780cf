// What log lines are about: facts that a log with fields keeps beside each line.
//
// A thread says so once, where its work for a session, in a backend or for a reason begins, so that
// no line need name them; work that goes on elsewhere takes them along. To say so stores pointers;
// they are looked at only when a line is written, by a log that has fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Mutex.h"

namespace corvid {

// A session and its client, as the log names them. Outlives the session where a line still needs
// it.
//
// Threads: any. Its lock is taken while any other is held, and takes none.
class LogSubject : public std::enable_shared_from_this<LogSubject> {
 public:
  // What is longer is cut.
  static constexpr std::size_t mostClientBytes = 256;

  explicit LogSubject(std::uint64_t session) : _session(session) {}

  // In order of acceptance, from 1.
  std::uint64_t session() const { return _session; }
  // The client's name, or the number of its type; empty before it has described itself.
  std::string client() const EXCLUDES(_mutex);
  void setClient(std::string client) EXCLUDES(_mutex);

 private:
  const std::uint64_t _session;
  mutable Mutex _mutex;
  std::string _client GUARDED_BY(_mutex);
};

// Of this thread, as it stands. What is null or empty is not known.
struct LogFields {
  const LogSubject* subject = nullptr;
  std::string_view backend{};
  // A word of the closed list, and what names it in journals, 32 hexadecimal digits.
  std::string_view reason{};
  std::string_view messageID{};
};
const LogFields& logFields();

// The session that this thread works for, to take along; null where there is none.
std::shared_ptr<const LogSubject> sharedLogSubject();

// Each sets a field of its thread as long as it lives, and borrows what it is given.
class LoggingFor {
 public:
  explicit LoggingFor(const LogSubject* subject);
  ~LoggingFor();
  LoggingFor(const LoggingFor&) = delete;
  LoggingFor& operator=(const LoggingFor&) = delete;

 private:
  const LogSubject* const _before;
};

class LoggingBackend {
 public:
  explicit LoggingBackend(std::string_view name);
  ~LoggingBackend();
  LoggingBackend(const LoggingBackend&) = delete;
  LoggingBackend& operator=(const LoggingBackend&) = delete;

 private:
  const std::string_view _before;
};

class LoggingReason {
 public:
  LoggingReason(std::string_view word, std::string_view messageID);
  ~LoggingReason();
  LoggingReason(const LoggingReason&) = delete;
  LoggingReason& operator=(const LoggingReason&) = delete;

 private:
  const std::string_view _wordBefore;
  const std::string_view _messageIDBefore;
};

}  // namespace corvid
