// What the entries for one client make of many facts, before and after.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "base/Value.h"
#include "tools/storebag/policy/FactsMatrix.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid::storebag {

// Whether the verdicts are the same but for what tells by itself nothing: the entry's index, and
// the sampling threshold, which tells by the state.
bool isSameOutcome(BackendVerdict one, const BackendVerdict& other);

// What a client that has given the user info it must give gets of its entry at a posting backend.
class JudgedEntry {
 public:
  // `entry` stands at `index` of the backend's clients; null where none is for the client.
  JudgedEntry(std::string backend, const Value* entry, std::size_t index);

  // Null where there is none, or it is no dictionary.
  const Dictionary* entry() const;
  // As explain says it of the whole storebag, by the same decision but without a device around it.
  BackendVerdict verdictOn(const Facts& facts) const;

 private:
  const std::string _backend;
  const std::size_t _index;
  Dictionary _profile;  // with no other entry
};

// One backend before and after. It is asked once for all facts that both treat alike.
class EntryVerdicts {
 public:
  // Absent on a side that has no such backend.
  EntryVerdicts(std::optional<JudgedEntry> old, std::optional<JudgedEntry> now);

  struct Pair {
    std::optional<BackendVerdict> old{};
    std::optional<BackendVerdict> now{};
    bool isSame = false;
    // As explain prints them, where they are not the same.
    Value oldTold{};
    Value nowTold{};
  };
  EntryPair entries() const;
  // Holds as long as this.
  const Pair& on(const FactsCell& cell);

 private:
  const std::optional<JudgedEntry> _old;
  const std::optional<JudgedEntry> _now;
  // By kind and draw; one draw alone where it plays no part.
  std::map<std::array<std::size_t, 4>, std::map<double, Pair>> _pairs;
};

}  // namespace corvid::storebag
