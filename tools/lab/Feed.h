// What the lab's page is told, as a stream that any number of viewers follow.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <stop_token>
#include <string>
#include <string_view>

#include "base/Mutex.h"
#include "base/Value.h"

namespace corvid::lab {

// Numbered entries, of which the youngest are kept, and named states, of which the newest counts. A
// viewer gets them as server-sent events with JSON: "entry" with an id, a state by its name, and
// {"lost":N} as "lost" for entries that were forgotten before it asked.
//
// Threads   any.
// Limits    An entry of more than `shownBytes` is kept without its content, with a "note" instead.
class Feed {
 public:
  // Of entries: how many are kept, and how many bytes of them. The youngest is always kept.
  static constexpr std::size_t mostEntries = 10'000;
  static constexpr std::size_t mostBytes = 64 << 20;
  static constexpr std::size_t shownBytes = 1 << 20;
  // About as much as one call of next gives.
  static constexpr std::size_t pieceSize = 256 << 10;

  // Where a viewer is. It begins with all that is kept.
  struct Position {
    std::uint64_t entry = 0;  // the last that it has
    std::uint64_t change = 0;
  };

  Feed();

  // Adds "time", seconds since 1970, to what has just happened.
  void add(Dictionary entry) EXCLUDES(_mutex);
  // The same again is no change.
  void setState(const std::string& name, const Dictionary& state) EXCLUDES(_mutex);

  // The events after `position`, which goes on behind them; empty where none came within `limit`
  // or until `stop`.
  std::string next(Position& position, const std::stop_token& stop, std::chrono::milliseconds limit)
      EXCLUDES(_mutex);

  // Ids of entries are "RUN-NUMBER": a viewer that comes again tells from which entry on. One of
  // another run, or none, is the beginning.
  Position positionAfter(std::string_view id) const;
  const std::string& run() const { return _run; }

 private:
  struct State {
    std::string text;
    std::uint64_t change;
  };

  bool hasNews(const Position& position) const REQUIRES(_mutex);

  const std::string _run;  // tells the ids of this process from those of one before it

  Mutex _mutex;
  Condition _changed;
  std::deque<std::string> _entries GUARDED_BY(_mutex);
  std::uint64_t _lastEntry GUARDED_BY(_mutex) = 0;
  std::size_t _bytes GUARDED_BY(_mutex) = 0;
  std::map<std::string, State> _states GUARDED_BY(_mutex);
  std::uint64_t _lastChange GUARDED_BY(_mutex) = 0;
};

}  // namespace corvid::lab
