// How often the log tells of the same fault of one user's clients.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "base/Pace.h"

namespace corvid {

// The first lines of a kind are written as they are. Past those, one a minute is, which says how
// many like it were left out; the first of them says that there may be more.
//
// Limits  mostKinds kinds; what finds no place among them has one together.
// Not synchronised.
class LogPace {
 public:
  // Which user, and what tells one text from others: where its literal stands.
  using Kind = std::pair<std::uint32_t, const char*>;
  using Time = Pace<Kind>::Time;

  // Of lines that tell of a client's faults and of nothing else (Complaint.h); of all others, which
  // may also tell one by one what became of a client's events.
  static constexpr int complaints = 20;
  static constexpr int others = 1000;
  static constexpr std::chrono::minutes interval{1};
  static constexpr std::size_t mostKinds = 1024;

  explicit LogPace(int burst) : _pace(burst, interval) {}

  // What is put behind a line of this kind, mostly nothing; no text where the line is left out.
  std::optional<std::string> next(Kind kind, Time now);

 private:
  Pace<Kind> _pace;
  // Of kinds that have passed their burst: how many lines were left out since the last one.
  std::map<Kind, std::size_t> _leftOut;
};

}  // namespace corvid
