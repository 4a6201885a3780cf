#include "tools/storebag/policy/Outcomes.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tools/storebag/policy/EntryVerdicts.h"
#include "tools/storebag/policy/FactsMatrix.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid::storebag {

namespace {

const std::array postingBackends{std::string(kCorvidBackendHTTPPost),
                                 std::string(kCorvidBackendHTTPPost2)};
constexpr std::int32_t ordinaryType = 6;
constexpr std::int32_t adaptorType = 7;  // one whose clients may use metrix

const Array noEntries;

const Array& clientsOf(const Dictionary& section, std::string_view backend) {
  const Dictionary* const profile = dictionaryAt(section, backend);
  const Array* const clients = profile ? arrayAt(*profile, "clients") : nullptr;
  return clients ? *clients : noEntries;
}

// Each backend's verdict by its name.
std::map<std::string, BackendVerdict> byName(const Verdict& verdict) {
  std::map<std::string, BackendVerdict> backends;
  for (const BackendVerdict& backend : verdict.backends) backends[backend.name] = backend;
  return backends;
}

bool mayReport(const BackendVerdict& backend) {
  return backend.state == "sending" || backend.state == "held";
}

// What is said of a backend that is not there.
Value absent(const Verdict& verdict) {
  return verdict.reason ? Value(Dictionary{{"reason", wordOf(*verdict.reason)}}) : Value();
}

const EventVerdict* eventAt(const Verdict& verdict, const std::string& backend) {
  if (!verdict.event) return nullptr;
  const auto found = std::ranges::find(*verdict.event, backend, &EventVerdict::name);
  return found == verdict.event->end() ? nullptr : &*found;
}

// One client's records of probes before and after, where the verdicts are the same.
class RecordComparison {
 public:
  // Parts of the storebags that hold what is for the client.
  RecordComparison(Dictionary old, Dictionary now, std::vector<SentEvent> probes)
      : _old(std::move(old)), _now(std::move(now)), _probes(std::move(probes)) {}

  // Both sides with the record of the first probe of which they make different ones.
  using Change = std::optional<std::pair<Value, Value>>;
  const Change& compare(const Facts& facts, const BackendVerdict& old, const BackendVerdict& now) {
    // What country and draw do to a record they do by the verdict.
    Known known{facts.consents, facts.productFamily, facts.hardwareType, old, now};
    for (const auto& [key, change] : _known)
      if (key == known) return change;
    return _known.emplace_back(std::move(known), firstChange(facts, old, now)).second;
  }

 private:
  using Known = std::tuple<bool, std::optional<std::string>, std::optional<std::string>,
                           BackendVerdict, BackendVerdict>;

  Change firstChange(const Facts& facts, const BackendVerdict& old,
                     const BackendVerdict& now) const {
    for (const SentEvent& probe : _probes) {
      const Verdict before = explain(_old, ordinaryType, facts, probe);
      const Verdict after = explain(_now, ordinaryType, facts, probe);
      const EventVerdict* const was = eventAt(before, old.name);
      const EventVerdict* const is = eventAt(after, now.name);
      if (was && is && was->record != is->record)
        return std::pair(withRecord(old, *was), withRecord(now, *is));
    }
    return std::nullopt;
  }

  static Value withRecord(const BackendVerdict& backend, const EventVerdict& event) {
    Dictionary all = toDictionary(backend);
    all.set("record", event.record ? Value(*event.record) : Value());
    return all;
  }

  const Dictionary _old;
  const Dictionary _now;
  const std::vector<SentEvent> _probes;
  std::deque<std::pair<Known, Change>> _known;
};

class OutcomeComparison {
 public:
  OutcomeComparison(const Dictionary& old, const Dictionary& now) : _old(old), _now(now) {}

  void compareMatrix() {
    for (const auto type : {CorvidEnvironmentType::development, CorvidEnvironmentType::internal,
                            CorvidEnvironmentType::seed, CorvidEnvironmentType::release}) {
      const bool isNamed = _old.contains(*environmentNameForType(type)) ||
                           _now.contains(*environmentNameForType(type));
      if (isNamed || type == CorvidEnvironmentType::release) compareEnvironment(type);
    }
  }
  void compareGiven(const std::vector<DescribedClient>& given) {
    for (const DescribedClient& client : given) compare(_old, _now, client);
  }
  std::vector<OutcomeChange> changes() && { return std::move(_changes); }

 private:
  void compareEnvironment(CorvidEnvironmentType type) {
    const Dictionary* const old = sectionForEnvironment(_old, type);
    const Dictionary* const now = sectionForEnvironment(_now, type);
    Facts facts;
    facts.environment = type;
    facts.consents = true;
    facts.productFamily = "Another";
    const bool hasAdaptors = (old && old->contains(kCorvidBackendMetrix)) ||
                             (now && now->contains(kCorvidBackendMetrix));
    // Who requires no user info, and who has given none yet, get the same whatever their names.
    for (const bool needsUserInfo : {false, true}) {
      facts.sessionInfo =
          Dictionary{{std::string(kCorvidSessionInfoRequireUserInfo), needsUserInfo}};
      compare(_old, _now, {ordinaryType, facts});
      if (hasAdaptors) compare(_old, _now, {adaptorType, facts});
    }
    // Without a version neither is used at all.
    if (old && now && stringAt(_old, "version") && stringAt(_now, "version"))
      compareClients({*old, explain(_old, ordinaryType, facts)},
                     {*now, explain(_now, ordinaryType, facts)}, facts);
  }

  // A section, and what is made of it wherever there is a product family.
  struct Side {
    Side(const Dictionary& itsSection, Verdict itsVerdict)
        : section(itsSection), verdict(std::move(itsVerdict)) {
      for (const std::string& backend : postingBackends)
        entries.emplace(backend, clientsOf(section, backend));
    }
    const Dictionary& section;
    const Verdict verdict;
    std::map<std::string, EntryIndex> entries;
  };

  void compareClients(const Side& old, const Side& now, Facts base) {
    std::set<ClientNames> affected;
    for (const std::string& backend : postingBackends)
      for (ClientNames& names :
           affectedClients(clientsOf(old.section, backend), clientsOf(now.section, backend)))
        affected.insert(std::move(names));
    for (const ClientNames& names : affected) {
      base.userInfo = Dictionary();
      if (names.client) base.userInfo->set(std::string(kCorvidUserInfoClientName), *names.client);
      if (names.service)
        base.userInfo->set(std::string(kCorvidUserInfoServiceName), *names.service);
      compareClient(old, now, names, base);
    }
  }

  // One client, by the entries that are for it: what others say is nothing to it.
  void compareClient(const Side& old, const Side& now, const ClientNames& names,
                     const Facts& base) {
    std::vector<std::pair<std::string, EntryVerdicts>> backends;
    std::vector<EntryPair> entries;
    std::vector<SentEvent> probes;
    for (const std::string& name : postingBackends) {
      EntryVerdicts verdicts(judged(old, name, names), judged(now, name, names));
      const auto [was, is] = verdicts.entries();
      if (was && is && *was == *is) continue;
      entries.push_back({was, is});
      if (was && is && filtersOf(*was) != filtersOf(*is))
        std::ranges::copy(probesOf({was, is}), std::back_inserter(probes));
      backends.emplace_back(name, std::move(verdicts));
    }
    std::optional<RecordComparison> records;
    if (!probes.empty())
      records.emplace(partFor(old, names, base), partFor(now, names, base), std::move(probes));
    forEachCell(entries, base, [&](const FactsCell& cell) {
      const auto tell = [&](const std::string& name, Value was, Value is) {
        _changes.push_back({{ordinaryType, cell.facts}, name, std::move(was), std::move(is)});
      };
      for (auto& [name, verdicts] : backends) {
        const EntryVerdicts::Pair& pair = verdicts.on(cell);
        if (!pair.isSame)
          tell(name, pair.old ? pair.oldTold : absent(old.verdict),
               pair.now ? pair.nowTold : absent(now.verdict));
        else if (records && pair.now && mayReport(*pair.now))
          if (const auto& change = records->compare(cell.facts, *pair.old, *pair.now))
            tell(name, change->first, change->second);
      }
    });
  }

  static std::optional<JudgedEntry> judged(const Side& side, const std::string& backend,
                                           const ClientNames& names) {
    if (std::ranges::find(side.verdict.backends, backend, &BackendVerdict::name) ==
        side.verdict.backends.end())
      return std::nullopt;
    const auto index = side.entries.at(backend).entryFor(names);
    return JudgedEntry(backend, index ? &clientsOf(side.section, backend)[*index] : nullptr,
                       index.value_or(0));
  }
  static Value filtersOf(const Dictionary& entry) {
    const Value* const filters = entry.find("filters");
    return filters ? *filters : Value();
  }

  // A storebag with no more of the section than is for the client: to read the rest again for each
  // record would take its time.
  static Dictionary partFor(const Side& side, const ClientNames& names, const Facts& facts) {
    Dictionary section = side.section;
    for (const std::string& backend : postingBackends) {
      const Dictionary* const profile = dictionaryAt(side.section, backend);
      if (!profile || !arrayAt(*profile, "clients")) continue;
      Dictionary part = *profile;
      const auto index = side.entries.at(backend).entryFor(names);
      part.set("clients", index ? Array{clientsOf(side.section, backend)[*index]} : Array());
      section.set(backend, std::move(part));
    }
    return {{"version", "1"},
            {std::string(*environmentNameForType(facts.environment)), std::move(section)}};
  }

  void compare(const Dictionary& old, const Dictionary& now, const DescribedClient& client) {
    const Verdict before = explain(old, client.type, client.facts);
    const Verdict after = explain(now, client.type, client.facts);
    const auto oldBackends = byName(before);
    const auto nowBackends = byName(after);
    std::set<std::string> names;
    for (const auto* const backends : {&oldBackends, &nowBackends})
      for (const auto& [name, backend] : *backends) names.insert(name);
    for (const std::string& name : names) {
      const auto was = oldBackends.find(name);
      const auto is = nowBackends.find(name);
      const BackendVerdict* const oldBackend = was == oldBackends.end() ? nullptr : &was->second;
      const BackendVerdict* const nowBackend = is == nowBackends.end() ? nullptr : &is->second;
      if (!oldBackend || !nowBackend || !isSameOutcome(*oldBackend, *nowBackend))
        _changes.push_back({client, name,
                            oldBackend ? Value(toDictionary(*oldBackend)) : absent(before),
                            nowBackend ? Value(toDictionary(*nowBackend)) : absent(after)});
    }
  }

  const Dictionary& _old;
  const Dictionary& _now;
  std::vector<OutcomeChange> _changes;
};

}  // namespace

std::vector<OutcomeChange> outcomeChanges(const Dictionary& old, const Dictionary& now,
                                          const std::vector<DescribedClient>& given) {
  OutcomeComparison comparison(old, now);
  comparison.compareMatrix();
  comparison.compareGiven(given);
  return std::move(comparison).changes();
}

}  // namespace corvid::storebag
