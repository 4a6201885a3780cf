// For whom another storebag changes what the device does, and how.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid::storebag {

struct DescribedClient {
  std::int32_t type = 0;
  Facts facts{};
};

struct OutcomeChange {
  DescribedClient client;
  std::string backend;
  // As explain says it, with the record of a probe where that is what differs; null where there is
  // no such backend, or the reason where the session has none.
  Value old{};
  Value now{};
};

// Compares what explain (Verdict.h) says of both storebags for a matrix of facts that their lists
// name (FactsMatrix.h), then for those that are given. An entry that has only moved changes
// nothing.
std::vector<OutcomeChange> outcomeChanges(const Dictionary& old, const Dictionary& now,
                                          const std::vector<DescribedClient>& given);

}  // namespace corvid::storebag
