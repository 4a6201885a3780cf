// The messages that a publisher answers for.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// From `add` until each is completed, once: confirmed, refused, or unanswered when its deadline has
// passed. Completions are called with no lock held. A message is sent on one connection at a time,
// and again on the next one where it was not confirmed; it is numbered by the connection's order.
//
// Threads: any.
class Unconfirmed {
 public:
  using Clock = std::chrono::steady_clock;
  // `most`: of the bytes that are held at once.
  Unconfirmed(std::chrono::milliseconds patience, std::size_t most)
      : _patience(patience), _most(most) {}

  // False where there is no room: it is answered later as unanswered.
  bool add(LogMessage message, LogPublisher::Completion completion) EXCLUDES(_mutex);

  // Has the next `expire` complete what was never added.
  void answerLater(LogPublisher::Completion completion, Published outcome) EXCLUDES(_mutex);

  // The oldest that was not sent on this connection, which counts as sent from now on; null where
  // there is none.
  std::shared_ptr<const LogMessage> takeUnsent() EXCLUDES(_mutex);
  // A connection begins, on which nothing was sent yet.
  void beginConnection() EXCLUDES(_mutex);
  // The `number`th that was sent, from 1, or all up to it.
  void confirm(std::uint64_t number, bool withEarlier, Published outcome) EXCLUDES(_mutex);

  // Completes what is over its deadline. Gives the time of the next one.
  Clock::time_point expire(Clock::time_point now) EXCLUDES(_mutex);

  std::size_t bytes() const EXCLUDES(_mutex);
  // When the oldest of those that were sent and not confirmed was sent.
  std::optional<Clock::time_point> waitingSince() const EXCLUDES(_mutex);

 private:
  struct Entry {
    std::shared_ptr<const LogMessage> message;
    LogPublisher::Completion completion;
    Clock::time_point deadline;
    Clock::time_point sent;
  };
  using Key = std::uint64_t;  // counts what was added
  using Answer = std::pair<LogPublisher::Completion, Published>;

  // The keys that a confirmation is about, which then are no more under way.
  std::vector<Key> takeSent(std::uint64_t number, bool withEarlier) REQUIRES(_mutex);
  void remove(Key key, Published outcome, std::vector<Answer>& answers) REQUIRES(_mutex);

  const std::chrono::milliseconds _patience;
  const std::size_t _most;
  mutable Mutex _mutex;
  std::map<Key, Entry> _entries GUARDED_BY(_mutex);
  std::vector<Answer> _answers GUARDED_BY(_mutex);
  std::deque<Key> _unsent GUARDED_BY(_mutex);
  std::deque<Key> _sent GUARDED_BY(_mutex);  // in the order of their numbers; 0: no more under way
  std::uint64_t _firstSent GUARDED_BY(_mutex) = 1;  // the number of the first of these
  Key _added GUARDED_BY(_mutex) = 0;
  std::size_t _bytes GUARDED_BY(_mutex) = 0;
};

}  // namespace corvid::fleet
