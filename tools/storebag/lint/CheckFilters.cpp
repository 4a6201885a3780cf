// The filters of an entry: which of them ever decide.
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <string_view>
#include <vector>

#include "backends/https/EventFilters.h"
#include "base/NearestWord.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "tools/storebag/lint/Checks.h"

namespace corvid::storebag {

namespace {

constexpr std::string_view actions[] = {"remove", "sha256", "keep"};
constexpr std::int64_t mostOfRecord = std::numeric_limits<std::uint16_t>::max();

struct Place {
  std::size_t index;
  filterTag tag;
};

// Whether it is one.
bool checkAction(const Dictionary& filter, const std::string& path, Report& report) {
  const std::string* action = stringAt(filter, "action");
  if (!action || std::ranges::count(actions, *action) > 0) return true;
  const auto meant = nearestWord(*action, actions);
  report.wrong(join(path, "action"),
               fmt::format("\"{}\" is no action, so the key leaves as it is", *action),
               meant ? fmt::format("write \"{}\"", *meant) : "write \"remove\" or \"sha256\"");
  return false;
}

// Whether records can have what the filter asks for.
bool checkRecord(const Dictionary& filter, const std::string& path, Report& report) {
  bool isPossible = true;
  for (const std::string_view key : {"method", "status"}) {
    if (integerAt(filter, key).value_or(0) <= mostOfRecord) continue;
    report.note(
        path, fmt::format("matches nothing: no record has a \"{}\" beyond {}", key, mostOfRecord));
    isPossible = false;
  }
  return isPossible;
}

void checkKey(const Dictionary& filter, const std::string& path, Report& report) {
  const std::string* key = stringAt(filter, "key");
  if (!filter.contains("key") || (key && key->empty()))
    report.note(path, "matches nothing: it has no \"key\", or an empty one");
  else if (key && trimmed(*key) != *key)
    report.note(join(path, "key"), "has blanks around it, which belong to the key",
                fmt::format("write \"{}\"", trimmed(*key)));
}

}  // namespace

void checkFilters(const Array& filters, const std::string& path, Report& report) {
  std::map<std::string, std::vector<Place>> byKey;
  for (std::size_t index = 0; index < filters.size(); ++index) {
    const Dictionary* filter = filters[index].dictionary();
    if (!filter) continue;
    const std::string below = at(path, index);
    checkKey(*filter, below, report);
    const bool hasAction = checkAction(*filter, below, report);
    const bool hasRecords = checkRecord(*filter, below, report);
    const std::string* key = stringAt(*filter, "key");
    if (!key || !hasAction || !hasRecords) continue;
    const filterTag tag = tagFor(*filter);
    std::vector<Place>& earlier = byKey[caseFolded(*key)];
    const auto first = std::ranges::find_if(
        earlier, [&](const Place& place) { return place.tag.appliesTo(tag.method, tag.status); });
    if (first != earlier.end())
      report.note(below, fmt::format("matches nothing: {} decides for all its records",
                                     at("filters", first->index)));
    else
      earlier.push_back({index, tag});
  }
  for (const auto& [key, places] : byKey) {
    const auto lastChange =
        std::ranges::find_if(places.rbegin(), places.rend(),
                             [](const Place& p) { return p.tag.action != FilterAction::keep; });
    for (auto keeps = lastChange.base(); keeps != places.end(); ++keeps)
      report.note(at(path, keeps->index), "changes nothing: its key leaves as it would without it");
  }
}

}  // namespace corvid::storebag
