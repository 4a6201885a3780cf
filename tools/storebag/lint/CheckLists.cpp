// Lists of countries and devices: whom they let pass.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>

#include "backends/https/ListMatching.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "protocol/Reason.h"
#include "tools/storebag/lint/Checks.h"

namespace corvid::storebag {

namespace {

std::string inUpperCase(std::string_view text) {
  std::string upper(trimmed(text));
  std::ranges::transform(upper, upper.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return upper;
}

// What stands behind the language of a locale, or the text itself.
std::string codeMeantBy(std::string_view text) {
  const std::string code = inUpperCase(text.substr(text.find_first_of("_-") + 1));
  if (code == "UK") return "GB";
  return placeOfCountryCode(code) ? code : std::string();
}

std::string suggestionFor(std::string_view text) {
  const std::string code = codeMeantBy(text);
  return code.empty() || code == text ? std::string() : fmt::format("write \"{}\"", code);
}

void checkCountries(const Array& items, const std::string& path, PassingCountries& countries,
                    Report& report) {
  const MatchList list = matchListFromArray(&items);
  if ((everyCountry() & ~countries.through(list)).none())
    return report.note(path, "lets every country pass");
  for (std::size_t index = 0; index < list.size(); ++index) {
    if (countries.through(list[index]).none())
      report.note(
          at(path, index),
          fmt::format("\"{}\" occurs in no country's code, so it lets nobody pass", list[index]),
          suggestionFor(list[index]));
    else if (list[index].size() == 1)
      report.note(at(path, index),
                  fmt::format("lets each country pass whose code has a \"{}\"", list[index]));
  }
}

// Of product families or hardware types.
void checkDevices(const Array& items, const std::string& path, Report& report) {
  const MatchList list = matchListFromArray(&items);
  for (std::size_t index = 0; index < list.size(); ++index) {
    if (list[index].empty())
      report.note(at(path, index), "is empty and occurs in nothing", "take it away");
    else if (trimmed(list[index]) != list[index])
      report.note(at(path, index), "has blanks around it, which belong to what is sought",
                  fmt::format("write \"{}\"", trimmed(list[index])));
  }
}

// Of the countries of an item.
void checkThreshold(const Dictionary& item, const std::string& path, Report& report) {
  if (!item.contains("threshold"))
    return report.note(path, fmt::format("is missing: these countries report nothing ({})",
                                         wordOf(Reason::noThreshold)));
  if (asNumber(item.find("threshold")).value_or(0) < 0)
    report.note(path, fmt::format("is below 0: no session of these countries reports ({})",
                                  wordOf(Reason::sampledOut)));
}

}  // namespace

void checkLists(const Dictionary& entry, const std::string& path, PassingCountries& countries,
                Report& report) {
  if (const Array* listed = arrayAt(entry, "locale_whitelist"))
    checkCountries(*listed, join(path, "locale_whitelist"), countries, report);
  if (const Array* devices = arrayAt(entry, "device_whitelist")) {
    const std::string below = join(path, "device_whitelist");
    if (devices->empty())
      report.note(below, "is empty and lets everybody pass");
    else if (std::ranges::all_of(matchListFromArray(devices), &std::string_view::empty))
      report.note(below, fmt::format("has empty items only: no device may report ({})",
                                     wordOf(Reason::deviceNotListed)));
    else
      checkDevices(*devices, below, report);
  }
  if (const Array* devices = arrayAt(entry, "device_blacklist"))
    checkDevices(*devices, join(path, "device_blacklist"), report);
}

void checkCountryThresholds(const Dictionary& entry, const std::string& path,
                            PassingCountries& countries, Report& report) {
  constexpr std::string_view key = "per_country_sampling_thresholds";
  const Array* items = arrayAt(entry, key);
  if (!items) return;
  const CountrySet passing =
      countries.through(matchListFromArray(arrayAt(entry, "locale_whitelist")));
  std::map<std::string, std::size_t> decidedBy;
  for (std::size_t index = 0; index < items->size(); ++index) {
    const Dictionary* item = (*items)[index].dictionary();
    if (!item) continue;
    const std::string below = at(join(path, key), index);
    checkThreshold(*item, join(below, "threshold"), report);
    const Array* listed = arrayAt(*item, "country");
    if (!listed || listed->empty())
      report.note(join(below, "country"), "names no country, so the item matches nothing");
    for (std::size_t which = 0; listed && which < listed->size(); ++which) {
      const std::string* country = (*listed)[which].string();
      if (!country) continue;
      const std::string there = at(join(below, "country"), which);
      const auto place = placeOfCountryCode(*country);
      const auto [first, isFirst] = decidedBy.emplace(*country, index);
      if (!place)
        report.note(there,
                    fmt::format("\"{}\" is no country's code, whole and in upper case, so it "
                                "matches nothing",
                                *country),
                    suggestionFor(*country));
      else if (!isFirst)
        report.note(there, fmt::format("matches nothing: {} decides for {}",
                                       at(std::string(key), first->second), *country));
      else if (passing.any() && !passing[*place])
        report.note(there, fmt::format("is never asked: locale_whitelist keeps {} back", *country));
    }
  }
}

}  // namespace corvid::storebag
