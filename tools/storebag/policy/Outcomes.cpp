#include "tools/storebag/policy/Outcomes.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "base/Reading.h"
#include "protocol/Keys.h"
#include "tools/storebag/policy/FactsMatrix.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid::storebag {

namespace {

constexpr std::array postingBackends{kCorvidBackendHTTPPost, kCorvidBackendHTTPPost2};
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

bool isSame(BackendVerdict one, const BackendVerdict& other) {
  one.entry = other.entry;
  one.samplingThreshold = other.samplingThreshold;  // which tells by the state, or does not
  return one == other;
}

bool mayReport(const BackendVerdict& backend) {
  return backend.state == "sending" || backend.state == "held";
}

Value told(const Verdict& verdict, const BackendVerdict* backend) {
  if (backend) return toDictionary(*backend);
  if (verdict.reason) return Dictionary{{"reason", wordOf(*verdict.reason)}};
  return {};
}

const EventVerdict* eventAt(const Verdict& verdict, const std::string& backend) {
  if (!verdict.event) return nullptr;
  const auto found = std::ranges::find(*verdict.event, backend, &EventVerdict::name);
  return found == verdict.event->end() ? nullptr : &*found;
}

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
      compareClients(*old, *now, facts);
  }

  void compareClients(const Dictionary& old, const Dictionary& now, Facts base) {
    std::set<ClientNames> affected;
    for (const std::string_view backend : postingBackends)
      for (ClientNames& names : affectedClients(clientsOf(old, backend), clientsOf(now, backend)))
        affected.insert(std::move(names));
    for (const ClientNames& names : affected) {
      base.userInfo = Dictionary();
      if (names.client) base.userInfo->set(std::string(kCorvidUserInfoClientName), *names.client);
      if (names.service)
        base.userInfo->set(std::string(kCorvidUserInfoServiceName), *names.service);
      compareClient(old, now, names, base);
    }
  }

  // One client, with no more of the sections than is for it: what other entries say is nothing to
  // it, and reading them again for each cell of the matrix would take its time.
  void compareClient(const Dictionary& old, const Dictionary& now, const ClientNames& names,
                     const Facts& base) {
    std::vector<EntryPair> entries;
    Part oldPart(old, base.environment);
    Part nowPart(now, base.environment);
    std::vector<SentEvent> probes;
    for (const std::string_view backend : postingBackends) {
      EntryPair pair{oldPart.add(backend, names), nowPart.add(backend, names)};
      if (pair.old && pair.now && *pair.old == *pair.now) continue;
      entries.push_back(pair);
      if (pair.old && pair.now && filtersOf(*pair.old) != filtersOf(*pair.now))
        std::ranges::copy(probesOf(pair), std::back_inserter(probes));
    }
    for (const Facts& facts : factsMatrix(entries, base))
      compare(oldPart.storebag(), nowPart.storebag(), {ordinaryType, facts}, probes, &oldPart,
              &nowPart);
  }

  static Value filtersOf(const Dictionary& entry) {
    const Value* const filters = entry.find("filters");
    return filters ? *filters : Value();
  }

  // A section with those entries alone that are for one client.
  class Part {
   public:
    Part(const Dictionary& section, CorvidEnvironmentType environment)
        : _section(section), _part(section), _environment(*environmentNameForType(environment)) {}

    // The entry that is for the client; null where none is.
    const Dictionary* add(std::string_view backend, const ClientNames& names) {
      const Dictionary* const profile = dictionaryAt(_section, backend);
      if (profile == nullptr) return nullptr;
      Dictionary part = *profile;
      const Array& clients = clientsOf(_section, backend);
      const auto index = entryFor(clients, names);
      if (arrayAt(part, "clients") != nullptr)
        part.set("clients", index ? Array{clients[*index]} : Array());
      _part.set(std::string(backend), std::move(part));
      if (index) _indexOf[std::string(backend)] = *index;
      return index ? clients[*index].dictionary() : nullptr;
    }
    Dictionary storebag() const { return {{"version", "1"}, {_environment, _part}}; }
    // Where its entry stands in the whole.
    void correct(BackendVerdict& backend) const {
      if (const auto index = _indexOf.find(backend.name); backend.entry && index != _indexOf.end())
        backend.entry = index->second;
    }

   private:
    const Dictionary& _section;
    Dictionary _part;
    const std::string _environment;
    std::map<std::string, std::size_t> _indexOf;
  };

  void compare(const Dictionary& old, const Dictionary& now, const DescribedClient& client,
               const std::vector<SentEvent>& probes = {}, const Part* oldPart = nullptr,
               const Part* nowPart = nullptr) {
    const Verdict before = explain(old, client.type, client.facts);
    const Verdict after = explain(now, client.type, client.facts);
    auto oldBackends = byName(before);
    auto nowBackends = byName(after);
    std::set<std::string> names;
    for (auto& [name, backend] : oldBackends) {
      if (oldPart) oldPart->correct(backend);
      names.insert(name);
    }
    for (auto& [name, backend] : nowBackends) {
      if (nowPart) nowPart->correct(backend);
      names.insert(name);
    }
    for (const std::string& name : names) {
      // Others are the same for every client.
      if (oldPart && std::ranges::find(postingBackends, name) == postingBackends.end()) continue;
      const auto was = oldBackends.find(name);
      const auto is = nowBackends.find(name);
      const BackendVerdict* const oldBackend = was == oldBackends.end() ? nullptr : &was->second;
      const BackendVerdict* const nowBackend = is == nowBackends.end() ? nullptr : &is->second;
      if (!oldBackend || !nowBackend || !isSame(*oldBackend, *nowBackend))
        _changes.push_back({client, name, told(before, oldBackend), told(after, nowBackend)});
      else if (mayReport(*nowBackend))
        compareRecords(old, now, client, probes, *oldBackend, *nowBackend);
    }
  }

  void compareRecords(const Dictionary& old, const Dictionary& now, const DescribedClient& client,
                      const std::vector<SentEvent>& probes, const BackendVerdict& oldBackend,
                      const BackendVerdict& nowBackend) {
    for (const SentEvent& probe : probes) {
      const Verdict before = explain(old, client.type, client.facts, probe);
      const Verdict after = explain(now, client.type, client.facts, probe);
      const EventVerdict* const was = eventAt(before, oldBackend.name);
      const EventVerdict* const is = eventAt(after, nowBackend.name);
      if (!was || !is || was->record == is->record) continue;
      const auto withRecord = [](const BackendVerdict& backend, const EventVerdict& event) {
        Dictionary all = toDictionary(backend);
        all.set("record", event.record ? Value(*event.record) : Value());
        return all;
      };
      _changes.push_back(
          {client, nowBackend.name, withRecord(oldBackend, *was), withRecord(nowBackend, *is)});
      return;
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
