#include "tools/storebag/policy/FactsMatrix.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "backends/https/ClientPolicy.h"
#include "backends/https/ListMatching.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "tools/storebag/policy/Changes.h"

namespace corvid::storebag {

namespace {

constexpr const char* another = "Another";
constexpr std::array<const char*, 3> listKeys{"locale_whitelist", "device_whitelist",
                                              "device_blacklist"};

bool include(const Addressees& addressees, const ClientNames& names) {
  return addressees.matchClientNameAndServiceID(pointerTo(names.client), pointerTo(names.service));
}

// The items that the texts of all entries list, and none at all.
std::set<std::optional<std::string>> allItems(const Array& old, const Array& now, const char* key) {
  std::set<std::optional<std::string>> items{std::nullopt};
  for (const Array* const all : {&old, &now})
    for (const Value& value : *all)
      if (const Dictionary* const entry = value.dictionary())
        for (const std::string_view item : matchListFromText(stringAt(*entry, key)))
          if (!item.empty()) items.insert(std::string(item));
  return items;
}

// A value that none of these is a fragment of.
std::string otherThan(const std::set<std::string>& texts, std::string value) {
  const auto holdsOne = [&] {
    return std::ranges::any_of(
        texts, [&](const std::string& text) { return containsIgnoringCase(value, text); });
  };
  while (value.size() > 1 && holdsOne()) value.pop_back();
  for (char other = '!'; other < '~' && holdsOne(); ++other) value = other;
  return value;
}

void collectTexts(const Array* array, std::set<std::string>& texts) {
  if (array == nullptr) return;
  for (const Value& item : *array)
    if (const std::string* const text = item.string(); text && !text->empty()) texts.insert(*text);
}

void collectCountries(const Dictionary& entry, std::set<std::string>& countries) {
  collectTexts(arrayAt(entry, "locale_whitelist"), countries);
  if (const Array* const perCountry = arrayAt(entry, "per_country_sampling_thresholds"))
    for (const Value& item : *perCountry)
      if (const Dictionary* const threshold = item.dictionary())
        collectTexts(arrayAt(*threshold, "country"), countries);
}

void collectBorders(const Dictionary& entry, std::set<double>& borders) {
  const auto collect = [&](const Dictionary& in, const char* key) {
    if (const auto number = asNumber(in.find(key))) borders.insert(*number);
  };
  collect(entry, "sampling_threshold");
  collect(entry, "override_sampling");
  if (const Array* const perCountry = arrayAt(entry, "per_country_sampling_thresholds"))
    for (const Value& item : *perCountry)
      if (const Dictionary* const threshold = item.dictionary()) collect(*threshold, "threshold");
}

// One draw for each stretch between borders: a draw at a border belongs to the stretch below it.
std::vector<double> drawsBetween(const std::set<double>& borders) {
  std::vector<double> draws;
  double below = 0;
  bool isEmpty = true;  // the stretch that begins at `below`
  for (const double border : borders) {
    if (!(border >= 0 && border < 1)) continue;
    draws.push_back(border);
    below = border;
    isEmpty = false;
  }
  draws.push_back(isEmpty ? 0.5 : (below + 1) / 2);
  return draws;
}

// What the decision says of an entry that has of the three lists only the one of that key.
class OneList {
 public:
  OneList(const Dictionary* entry, const char* key) {
    if (entry == nullptr) return;
    Dictionary stripped = *entry;
    for (const char* const name : {"client", "service", "override_dnu"}) stripped.erase(name);
    for (const char* const name : listKeys)
      if (std::string_view(name) != key) stripped.erase(name);
    // A device without a country passes any list that is not empty.
    if (std::string_view(key) != listKeys[0]) stripped.set(listKeys[0], Array{another});
    stripped.set("filters", Array());
    _profile.set("clients", Array{std::move(stripped)});
  }

  using Word = std::pair<Reason, std::optional<double>>;
  Word wordOn(const Facts& facts) const {
    const Dictionary userInfo;
    const PolicyDecision decision = decide(_profile,
                                           {.requireUserInfo = true,
                                            .userInfo = &userInfo,
                                            .consent = true,
                                            .country = facts.country,
                                            .productFamily = facts.productFamily,
                                            .hardwareType = facts.hardwareType},
                                           {});
    return {decision.reason, decision.samplingThreshold};
  }

 private:
  Dictionary _profile;
};

struct TellingValue {
  std::optional<std::string> value;
  std::size_t kind = 0;  // the same for values that all entries treat alike
};

// Of the values those that old and new entries do not treat alike, and one of each kind of others.
std::vector<TellingValue> tellingValues(const std::vector<EntryPair>& entries, const char* key,
                                        std::optional<std::string> Facts::*fact,
                                        std::vector<std::optional<std::string>> values) {
  std::vector<std::pair<OneList, OneList>> lists;
  lists.reserve(entries.size());
  for (const auto& [old, now] : entries) lists.emplace_back(OneList(old, key), OneList(now, key));
  std::map<std::vector<OneList::Word>, std::size_t> kinds;
  std::vector<TellingValue> telling;
  for (std::optional<std::string>& value : values) {
    Facts facts;
    facts.*fact = value;
    bool isAsBefore = true;
    std::vector<OneList::Word> words;
    for (const auto& [old, now] : lists) {
      words.push_back(old.wordOn(facts));
      words.push_back(now.wordOn(facts));
      isAsBefore = isAsBefore && words.back() == words[words.size() - 2];
    }
    const auto [kind, isFirst] = kinds.emplace(std::move(words), kinds.size());
    if (isFirst || !isAsBefore) telling.push_back({std::move(value), kind->second});
  }
  return telling;
}

std::vector<std::optional<std::string>> valuesOf(const std::set<std::string>& texts,
                                                 const char* other) {
  std::vector<std::optional<std::string>> values(texts.begin(), texts.end());
  values.emplace_back(otherThan(texts, other));
  return values;
}

}  // namespace

EntryIndex::EntryIndex(const Array& clients) {
  for (std::size_t at = 0; at < clients.size(); ++at) {
    const Dictionary* const entry = clients[at].dictionary();
    if (entry == nullptr) continue;
    const MatchList names = matchListFromText(stringAt(*entry, "client"));
    if (names.empty()) _forEverybody.emplace_back(at, *entry);
    for (const std::string_view name : names) _byName[caseFolded(name)].emplace_back(at, *entry);
  }
}

std::optional<std::size_t> EntryIndex::firstFor(const ClientNames& names, const Places& places) {
  for (const auto& [at, addressees] : places)
    if (include(addressees, names)) return at;
  return std::nullopt;
}

std::optional<std::size_t> EntryIndex::entryFor(const ClientNames& names) const {
  const auto everybodys = firstFor(names, _forEverybody);
  const auto named = names.client ? _byName.find(caseFolded(*names.client)) : _byName.end();
  const auto its = named == _byName.end() ? std::nullopt : firstFor(names, named->second);
  return its && everybodys ? std::min(*its, *everybodys) : its ? its : everybodys;
}

std::vector<ClientNames> affectedClients(const Array& old, const Array& now) {
  // Entries at the beginning and at the end that are the same keep their order among each other.
  const auto [first, last] = CommonEnds(old, now);
  std::vector<const Value*> changed;
  for (const Array* const all : {&old, &now})
    for (std::size_t at = first; at + last < all->size(); ++at) changed.push_back(&(*all)[at]);

  const auto clients = allItems(old, now, "client");
  const auto services = allItems(old, now, "service");
  std::set<ClientNames> affected;
  for (const Value* const value : changed) {
    const Dictionary* const entry = value->dictionary();
    if (entry == nullptr) continue;
    const Addressees addressees(*entry);
    std::set<std::optional<std::string>> its;
    for (const std::string_view item : matchListFromText(stringAt(*entry, "client")))
      its.insert(std::string(item));
    for (const auto& client : its.empty() ? clients : its)
      for (const auto& service : services)
        if (ClientNames names{client, service}; include(addressees, names))
          affected.insert(std::move(names));
  }
  return {affected.begin(), affected.end()};
}

void forEachCell(const std::vector<EntryPair>& entries, const Facts& base,
                 const std::function<void(const FactsCell&)>& visit) {
  std::set<std::string> countries, families, hardware;
  std::set<double> borders;
  for (const auto& [old, now] : entries)
    for (const Dictionary* const entry : {old, now}) {
      if (entry == nullptr) continue;
      collectCountries(*entry, countries);
      collectTexts(arrayAt(*entry, "device_whitelist"), families);
      collectTexts(arrayAt(*entry, "device_blacklist"), hardware);
      collectBorders(*entry, borders);
    }
  auto allCountries = valuesOf(countries, "ZZ");
  allCountries.emplace_back(std::nullopt);
  const auto itsCountries =
      tellingValues(entries, listKeys[0], &Facts::country, std::move(allCountries));
  auto allHardware = valuesOf(hardware, another);
  allHardware.emplace_back(std::nullopt);
  const auto itsFamilies =
      tellingValues(entries, listKeys[1], &Facts::productFamily, valuesOf(families, another));
  const auto itsHardware =
      tellingValues(entries, listKeys[2], &Facts::hardwareType, std::move(allHardware));
  const std::vector<double> draws = drawsBetween(borders);
  FactsCell cell{base, {}};
  Facts& facts = cell.facts;
  for (const bool consents : {true, false}) {
    facts.consents = consents;
    for (const auto& country : itsCountries) {
      facts.country = country.value;
      for (const auto& family : itsFamilies) {
        facts.productFamily = family.value;
        for (const auto& type : itsHardware) {
          facts.hardwareType = type.value;
          cell.kind = {consents, country.kind, family.kind, type.kind};
          for (const double draw : draws) {
            facts.draw = draw;
            visit(cell);
          }
        }
      }
    }
  }
}

std::vector<SentEvent> probesOf(const EntryPair& entries) {
  Dictionary payload;
  std::set<std::uint16_t> methods{7}, statuses{7};
  for (const Dictionary* const entry : {entries.old, entries.now}) {
    const Array* const filters = entry ? arrayAt(*entry, "filters") : nullptr;
    if (filters == nullptr) continue;
    for (const Value& each : *filters) {
      const Dictionary* const filter = each.dictionary();
      if (filter == nullptr) continue;
      if (const std::string* const key = stringAt(*filter, "key")) payload.set(*key, "a value");
      if (const auto method = integerAt(*filter, "method"); method >= 0 && method <= 65'535)
        methods.insert(static_cast<std::uint16_t>(*method));
      if (const auto status = integerAt(*filter, "status"); status >= 0 && status <= 65'535)
        statuses.insert(static_cast<std::uint16_t>(*status));
    }
  }
  std::vector<SentEvent> probes;
  for (const std::uint16_t method : methods)
    for (const std::uint16_t status : statuses)
      probes.push_back({.category = method, .type = status, .payload = payload});
  return probes;
}

}  // namespace corvid::storebag
