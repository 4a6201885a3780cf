// Which outcome has which cause.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "tests/soak/History.h"

namespace corvid::soak {

// The longest that an exchange is under way by itself, on a machine with much to do. A flush may be
// answered before one that was not its own has ended.
inline constexpr Time exchangeTime = 15'000;

using Words = std::set<std::string, std::less<>>;

// What may have become of an event that was offered to a daemon of that life, given its kind and
// the faults of the round: words of Ledger.h. A fault counts where it may have met the event, or
// what it did to the event's session may have lasted until then.
Words allowedWords(const Event& event, const Session& session, const Life& life,
                   const History& history);

// Whether some list allows that line of the log: one for every round, and one for each fault that
// the round had.
bool isAllowedInLog(std::string_view line, const History& history);

}  // namespace corvid::soak
