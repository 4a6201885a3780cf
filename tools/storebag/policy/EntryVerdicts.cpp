#include "tools/storebag/policy/EntryVerdicts.h"

#include <utility>

#include "backends/https/ClientPolicy.h"
#include "base/Reading.h"

namespace corvid::storebag {

namespace {

// Without a threshold there is nothing that a draw is held against.
bool dependsOnDraw(const EntryVerdicts::Pair& pair) {
  const auto hasThreshold = [](const std::optional<BackendVerdict>& verdict) {
    return verdict && verdict->samplingThreshold;
  };
  return hasThreshold(pair.old) || hasThreshold(pair.now);
}

Value told(const std::optional<BackendVerdict>& verdict) {
  return verdict ? Value(toDictionary(*verdict)) : Value();
}

}  // namespace

bool isSameOutcome(BackendVerdict one, const BackendVerdict& other) {
  one.entry = other.entry;
  one.samplingThreshold = other.samplingThreshold;
  return one == other;
}

JudgedEntry::JudgedEntry(std::string backend, const Value* entry, std::size_t index)
    : _backend(std::move(backend)), _index(index) {
  _profile.set("clients", entry ? Array{*entry} : Array());
}

const Dictionary* JudgedEntry::entry() const {
  const Array& entries = *_profile.find("clients")->array();
  return entries.empty() ? nullptr : entries.front().dictionary();
}

BackendVerdict JudgedEntry::verdictOn(const Facts& facts) const {
  const PolicyDecision decision = decide(_profile,
                                         {.requireUserInfo = true,
                                          .userInfo = pointerTo(facts.userInfo),
                                          .consent = facts.consents,
                                          .country = facts.country,
                                          .productFamily = facts.productFamily,
                                          .hardwareType = facts.hardwareType,
                                          .samplingFactor = facts.draw},
                                         {});
  BackendVerdict verdict{.name = _backend,
                         .state = std::string(wordOf(decision.state)),
                         .reason = std::string(wordOf(standingReason(decision)))};
  if (decision.entry) verdict.entry = _index;
  verdict.take(decision.policy, decision.samplingThreshold);
  return verdict;
}

EntryVerdicts::EntryVerdicts(std::optional<JudgedEntry> old, std::optional<JudgedEntry> now)
    : _old(std::move(old)), _now(std::move(now)) {}

EntryPair EntryVerdicts::entries() const {
  return {_old ? _old->entry() : nullptr, _now ? _now->entry() : nullptr};
}

const EntryVerdicts::Pair& EntryVerdicts::on(const FactsCell& cell) {
  std::map<double, Pair>& ofKind = _pairs[cell.kind];
  if (!ofKind.empty() && !dependsOnDraw(ofKind.begin()->second)) return ofKind.begin()->second;
  const auto [known, isNew] = ofKind.try_emplace(cell.facts.draw);
  Pair& pair = known->second;
  if (!isNew) return pair;
  if (_old) pair.old = _old->verdictOn(cell.facts);
  if (_now) pair.now = _now->verdictOn(cell.facts);
  pair.isSame = _old && _now ? isSameOutcome(*pair.old, *pair.now) : !_old && !_now;
  if (!pair.isSame) {
    pair.oldTold = told(pair.old);
    pair.nowTold = told(pair.now);
  }
  return pair;
}

}  // namespace corvid::storebag
