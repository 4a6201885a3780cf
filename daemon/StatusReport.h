// What the daemon tells of itself, as values that become JSON.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "base/Value.h"
#include "daemon/StorebagBoard.h"
#include "session/CorviddSession.h"
#include "status/Ledger.h"

namespace corvid {

// Of one storebag, at `now` in seconds since 1970: "name", "url", "state", "version", "keyID",
// ages.
Dictionary storebagStatus(const std::string& name, const StorebagStanding& storebag, double now,
                          double secondsBetweenAttempts);

// Of each host that events were posted to, with the exchanges that its client has for it now.
Array hostStatus(const std::map<std::string, Ledger::Host>& hosts,
                 const std::map<std::string, HTTPClient::Load>& loads, Clock::TimePoint now);

// Of one live session and its backends.
Dictionary sessionStatus(const CorviddSession& session);

// One line for the system's service manager: "2 sessions, 5 events held, storebag lumen 1.2".
std::string statusLine(std::size_t sessions, std::uint64_t held,
                       const std::map<std::string, StorebagStanding>& storebags);

// The text of an object whose texts are not known to be UTF-8; "{}" is never given.
std::string jsonOf(const Dictionary& object);

}  // namespace corvid
