// What corvid-storebag diff says of generated storebags, against explain on the whole of them.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "base/Reading.h"
#include "config/Environment.h"
#include "platform/data/JSON.h"
#include "tests/tools/storebag/RandomPolicies.h"
#include "tools/storebag/policy/Outcomes.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid {
namespace {

using storebag::BackendVerdict;
using storebag::Facts;
using storebag::OutcomeChange;
using storebag::outcomeChanges;
using storebag::Verdict;

const BackendVerdict* backendOf(const Verdict& verdict, std::string_view name) {
  const auto found = std::ranges::find(verdict.backends, name, &BackendVerdict::name);
  return found == verdict.backends.end() ? nullptr : &*found;
}

Value wholeWord(const Dictionary& storebag, const OutcomeChange& change) {
  const Verdict verdict = explain(storebag, change.client.type, change.client.facts);
  if (const BackendVerdict* const backend = backendOf(verdict, change.backend))
    return toDictionary(*backend);
  if (verdict.reason) return Dictionary{{"reason", wordOf(*verdict.reason)}};
  return {};
}

Value withoutRecord(Value word) {
  if (!word.dictionary()) return word;
  Dictionary copy = *word.dictionary();
  copy.erase("record");
  return copy;
}

std::string textOf(const Value& word) { return writeJSON(Dictionary{{"", word}}).value(); }

class Outcomes : public testing::Test {
 protected:
  static constexpr unsigned first = 20261122;
  static constexpr unsigned pairs = 200;

  // Two storebags of the same author: a section of the second is another's.
  static std::pair<Dictionary, Dictionary> storebags(unsigned seed) {
    RandomPolicies random(seed);
    Dictionary old = random.storebag();
    Dictionary now = old;
    const Dictionary other = random.storebag();
    for (const char* const key : {"version", "release"})
      if (const Value* const value = other.find(key); value && random.clientType() % 2 == 0)
        now.set(key, *value);
    return {std::move(old), std::move(now)};
  }
};

TEST_F(Outcomes, WhatIsToldOfAPartHoldsForTheWhole) {
  std::size_t told = 0;
  for (unsigned seed = first; seed < first + pairs; ++seed) {
    SCOPED_TRACE(seed);
    const auto [old, now] = storebags(seed);
    const std::vector<OutcomeChange> changes = outcomeChanges(old, now, {});
    // One of some: each asks for the whole twice.
    for (std::size_t at = 0; at < changes.size(); at += 1 + changes.size() / 20) {
      const OutcomeChange& change = changes[at];
      EXPECT_EQ(textOf(wholeWord(old, change)), textOf(withoutRecord(change.old)));
      EXPECT_EQ(textOf(wholeWord(now, change)), textOf(withoutRecord(change.now)));
      ++told;
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(told, 500u);
}

// For the same names the matrix holds each change of state that any facts meet.
TEST_F(Outcomes, WhateverChangesForAnyFactsIsTold) {
  std::size_t met = 0;
  for (unsigned seed = first; seed < first + pairs; ++seed) {
    const auto [old, now] = storebags(seed);
    const std::vector<OutcomeChange> changes = outcomeChanges(old, now, {});
    RandomPolicies random(seed);
    for (int draw = 0; draw < 20; ++draw) {
      Facts facts = random.facts();
      if (!facts.productFamily) continue;  // nothing posts, in neither
      // Without a section of its own seed is release.
      if (!old.contains("seed") && !now.contains("seed") &&
          facts.environment == CorvidEnvironmentType::seed)
        facts.environment = CorvidEnvironmentType::release;
      const std::int32_t type = random.clientTypeWithStorebag();
      const Verdict before = explain(old, type, facts);
      const Verdict after = explain(now, type, facts);
      for (const char* const name : {"httpPost", "httpPost2"}) {
        const BackendVerdict* const was = backendOf(before, name);
        const BackendVerdict* const is = backendOf(after, name);
        if (!was || !is || (was->state == is->state && was->reason == is->reason)) continue;
        ++met;
        EXPECT_TRUE(std::ranges::any_of(changes,
                                        [&](const OutcomeChange& change) {
                                          const Dictionary* const told = change.old.dictionary();
                                          const Dictionary* const toldNow = change.now.dictionary();
                                          return change.backend == name &&
                                                 change.client.facts.environment ==
                                                     facts.environment &&
                                                 told && toldNow && stringAt(*told, "state") &&
                                                 stringAt(*toldNow, "state") &&
                                                 *stringAt(*told, "state") == was->state &&
                                                 *stringAt(*told, "reason") == was->reason &&
                                                 *stringAt(*toldNow, "state") == is->state &&
                                                 *stringAt(*toldNow, "reason") == is->reason;
                                        }))
            << seed << " " << draw << " " << name << ": " << was->state << " " << was->reason
            << " -> " << is->state << " " << is->reason;
        if (HasFailure()) return;
      }
    }
  }
  EXPECT_GT(met, 200u);
}

}  // namespace
}  // namespace corvid
