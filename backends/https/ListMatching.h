// Allow and deny lists of a storebag entry: client and service names, countries, devices.
//
// An empty (or absent) list yields `whitelist`; an absent string against a list its negation.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"

namespace corvid {

// Views of the items. An empty item, which stands for one that is no string too, matches nothing.
using MatchList = std::vector<std::string_view>;

// The items of an array that may be absent.
MatchList matchListFromArray(const Array* items);
// The items of a text such as "a,b"; blanks belong to the items. An absent text has none.
MatchList matchListFromText(const std::string* commaSeparated);

// Whether an item is the string, ignoring case.
bool matchExactStringWithList(const MatchList& list, const std::string* wholeString,
                              bool whitelist);
// Whether an item occurs inside the string, ignoring case.
bool matchStringWithList(const MatchList& list, const std::string* wholeString, bool whitelist);

}  // namespace corvid
