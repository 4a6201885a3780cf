#include "backends/https/ListMatching.h"

#include <algorithm>

#include "base/Text.h"

namespace corvid {

namespace {

template <class Matches>
bool matchAny(const MatchList& list, const std::string* wholeString, bool whitelist,
              Matches matches) {
  if (list.empty()) return whitelist;
  if (wholeString == nullptr) return !whitelist;
  return std::any_of(list.begin(), list.end(), [&](std::string_view item) {
    return !item.empty() && matches(*wholeString, item);
  });
}

}  // namespace

MatchList matchListFromArray(const Array* items) {
  MatchList list;
  if (items == nullptr) return list;
  list.reserve(items->size());
  for (const Value& item : *items) {
    const std::string* text = item.string();
    list.push_back(text ? std::string_view(*text) : std::string_view());
  }
  return list;
}

MatchList matchListFromText(const std::string* commaSeparated) {
  return commaSeparated ? split(*commaSeparated, ',') : MatchList();
}

bool matchExactStringWithList(const MatchList& list, const std::string* wholeString,
                              bool whitelist) {
  return matchAny(list, wholeString, whitelist, equalsIgnoringCase);
}

bool matchStringWithList(const MatchList& list, const std::string* wholeString, bool whitelist) {
  return matchAny(list, wholeString, whitelist, containsIgnoringCase);
}

}  // namespace corvid
