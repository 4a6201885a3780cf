// The entries of a profile: whom each is for, which of them an earlier one hides, and what keeps
// those that it is for from reporting.
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "backends/https/ClientPolicy.h"
#include "backends/https/ListMatching.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "protocol/Keys.h"
#include "tools/storebag/lint/Checks.h"

namespace corvid::storebag {

namespace {

// The smallest draw but 0, which is as good as never drawn.
constexpr double smallestDraw = 1.0 / (std::uint64_t{1} << 48);

// What an entry says of whom it is for.
struct Addressees {
  std::size_t index;
  MatchList names;
  MatchList services;

  bool include(const std::string* name, const std::string* service) const {
    return matchExactStringWithList(names, name, true) &&
           matchStringWithList(services, service, true);
  }
};

// For each item a text that only lists with that item, or a part of it, match; null for an empty
// list, since a session without a name is what only empty lists match.
std::vector<std::optional<std::string>> examplesOf(const MatchList& list) {
  std::vector<std::optional<std::string>> examples;
  for (const std::string_view item : list)
    if (!item.empty()) examples.emplace_back(item);
  if (list.empty()) examples.emplace_back(std::nullopt);
  return examples;
}

class EntryCheck {
 public:
  EntryCheck(const Array& entries, const std::string& path, PassingCountries& countries,
             Report& report)
      : _entries(entries), _path(path), _countries(countries), _report(report) {}

  void run() {
    if (_entries.empty())
      _report.note(_path, fmt::format("is empty: no session that requires user info reports ({})",
                                      wordOf(Reason::noEntryMatches)));
    for (std::size_t index = 0; index < _entries.size(); ++index)
      if (const Dictionary* entry = _entries[index].dictionary()) check(*entry, index);
  }

 private:
  void check(const Dictionary& entry, std::size_t index) {
    const std::string path = at(_path, index);
    const Addressees now{index, matchListFromText(stringAt(entry, "client")),
                         matchListFromText(stringAt(entry, "service"))};
    for (const char* key : {"client", "service"}) checkNames(entry, key, path);
    if (!hide(now, path)) keepSilent(entry, now, path);
    remember(now);
    checkLists(entry, path, _countries, _report);
    if (const Array* filters = arrayAt(entry, "filters"))
      checkFilters(*filters, join(path, "filters"), _report);
    checkCountryThresholds(entry, path, _countries, _report);
    if (const auto override = integerAt(entry, "override_dnu").value_or(0);
        override != 0 && override != 1)
      _report.note(join(path, "override_dnu"), "only 1 overrides the user's consent",
                   "write 1 or 0");
  }

  void checkNames(const Dictionary& entry, const char* key, const std::string& path) {
    const MatchList items = matchListFromText(stringAt(entry, key));
    if (!items.empty() && examplesOf(items).empty())
      return _report.note(join(path, key), fmt::format("is empty: no session matches ({})",
                                                       wordOf(Reason::noEntryMatches)));
    for (const std::string_view item : items) {
      if (item.empty())
        _report.note(join(path, key), "has an empty item, which matches nothing");
      else if (trimmed(item) != item)
        _report.note(join(path, key),
                     fmt::format("has blanks around \"{}\", which belong to the name", item),
                     fmt::format("write \"{}\" between the commas", trimmed(item)));
    }
  }

  void remember(const Addressees& entry) {
    if (entry.names.empty()) _forEverybody.push_back(entry);
    for (const std::string_view name : entry.names) _byName[caseFolded(name)].push_back(entry);
  }

  // The first of the earlier entries that a session of that client and service matches.
  std::optional<std::size_t> firstFor(const std::string* name, const std::string* service) const {
    std::optional<std::size_t> first;
    const auto lookAt = [&](const std::vector<Addressees>& entries) {
      const auto found = std::ranges::find_if(
          entries, [&](const Addressees& entry) { return entry.include(name, service); });
      if (found != entries.end()) first = std::min(first.value_or(found->index), found->index);
    };
    lookAt(_forEverybody);
    const auto named = name ? _byName.find(caseFolded(*name)) : _byName.end();
    if (named != _byName.end()) lookAt(named->second);
    return first;
  }

  // Whether earlier entries take all that this one is for.
  bool hide(const Addressees& now, const std::string& path) {
    std::set<std::size_t> hiders;
    for (const auto& name : examplesOf(now.names))
      for (const auto& service : examplesOf(now.services)) {
        const auto first = firstFor(pointerTo(name), pointerTo(service));
        if (!first) return false;
        hiders.insert(*first);
      }
    if (hiders.empty()) return false;
    const std::string first = at("clients", *hiders.begin());
    const std::string others =
        hiders.size() > 1 ? fmt::format(" and {} more", hiders.size() - 1) : std::string();
    _report.note(
        path, fmt::format("is hidden by {}{}: all that it is for matches earlier", first, others),
        fmt::format("move it before {}", first));
    return true;
  }

  // Of the countries that pass those with a threshold of their own, and one more.
  std::vector<std::string> countriesToTry(const Dictionary& entry) {
    const CountrySet passing =
        _countries.through(matchListFromArray(arrayAt(entry, "locale_whitelist")));
    const std::size_t first = passing._Find_first() % passing.size();
    std::vector<std::string> countries{countryCodes()[first]};
    const Array* thresholds = arrayAt(entry, "per_country_sampling_thresholds");
    for (const Value& item : thresholds ? *thresholds : Array()) {
      const Dictionary* threshold = item.dictionary();
      const Array* listed = threshold ? arrayAt(*threshold, "country") : nullptr;
      for (const Value& country : listed ? *listed : Array()) {
        const auto place = country.string() ? placeOfCountryCode(*country.string()) : std::nullopt;
        if (place && passing[*place]) countries.push_back(*country.string());
      }
    }
    return countries;
  }

  // Why not even a device for which all is at its best reports.
  Reason reasonAtBest(const Dictionary& entry, const Addressees& now) {
    const Dictionary profile{{"clients", Array{entry}}};
    Dictionary userInfo;
    if (const auto& name = examplesOf(now.names); !name.empty() && name.front())
      userInfo.set(std::string(kCorvidUserInfoClientName), *name.front());
    if (const auto& service = examplesOf(now.services); !service.empty() && service.front())
      userInfo.set(std::string(kCorvidUserInfoServiceName), *service.front());
    const auto families = examplesOf(matchListFromArray(arrayAt(entry, "device_whitelist")));
    PolicyFacts facts{.requireUserInfo = true,
                      .userInfo = &userInfo,
                      .consent = true,
                      .productFamily = families.empty() ? std::string() : families.front(),
                      .hardwareType = "",
                      .samplingFactor = smallestDraw};
    std::optional<Reason> first;
    for (std::string& country : countriesToTry(entry)) {
      facts.country = std::move(country);
      const Reason reason = decide(profile, facts, {}).reason;
      if (reason == Reason::reporting) return reason;
      first = first.value_or(reason);
    }
    return *first;
  }

  void keepSilent(const Dictionary& entry, const Addressees& now, const std::string& path) {
    const Reason reason = reasonAtBest(entry, now);
    const auto note = [&](const char* key, std::string_view what, std::string suggestion = {}) {
      const std::string_view state = entry.contains(key) ? "" : "is missing: ";
      _report.note(join(path, key), fmt::format("{}{} ({})", state, what, wordOf(reason)),
                   std::move(suggestion));
    };
    switch (reason) {
      case Reason::reporting: return checkDelivery(entry, path);
      case Reason::noEntryMatches:
      case Reason::deviceNotListed: return;  // said of the lists themselves
      case Reason::countryNotListed: return note("locale_whitelist", "no country may report");
      case Reason::noFilters:
        return note("filters", "nothing reports", "add an empty array where nothing is filtered");
      default: return note("sampling_threshold", "no session reports");
    }
  }

  // What becomes of the events of a session that reports.
  void checkDelivery(const Dictionary& entry, const std::string& path) {
    if (!stringAt(entry, "post_url"))
      _report.note(join(path, "post_url"),
                   fmt::format("is missing: batches go nowhere, unless preferences name an address "
                               "({})",
                               wordOf(Reason::noAddress)));
    const bool isBatched = integerAt(entry, "expedite").value_or(0) == 0;
    const std::int32_t threshold = int32At(entry, "event_threshold");
    if (!isBatched || threshold > 0) return;
    _report.note(join(path, "event_threshold"),
                 fmt::format("{}: of batched events {} leaves between two flushes ({})",
                             entry.contains("event_threshold") ? fmt::format("is {}", threshold)
                                                               : "is missing, and so 0",
                             threshold == 0 ? "only the first of each method" : "none",
                             wordOf(Reason::batchFull)),
                 "write 49 so that 50 of a method wait for each other");
  }

  const Array& _entries;
  const std::string& _path;
  PassingCountries& _countries;
  Report& _report;
  std::vector<Addressees> _forEverybody;                             // those that name no client
  std::unordered_map<std::string, std::vector<Addressees>> _byName;  // the others, by folded name
};

}  // namespace

void checkEntries(const Array& entries, const std::string& path, PassingCountries& countries,
                  Report& report) {
  EntryCheck(entries, path, countries, report).run();
}

}  // namespace corvid::storebag
