// Storebags that outlast the daemon, where the deployment has them kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/StorebagFetch.h"

namespace corvid {

// One file a storebag name below the daemon's own folder, a property list for its owner only:
// "envelope" (data, as the server sent it), "url" (that was asked), "fetchTime" (date), "maxAge"
// (seconds from then on) and, where the server gave one, "lastModified".
//
// Without "KeepStorebags" in the deployment these do nothing, and leave files alone and unread.
// Threads: one call at a time.

struct KeptStorebag {
  FetchedStorebag fetched{};  // cut down as by fetchStorebagForEnvironmentAndClientType
  double fetchTime = 0;       // since 1970
};

// The kept one, if its envelope still is what this device takes, by the keys and rules of now, and
// came from the server that would be asked now. What is damaged, or signed by another key, is
// renamed to "NAME.plist.damaged"; what is older than the device has seen is removed; either is one
// error line. So is what has no section for the environment passed over, in silence: the next one
// may.
std::optional<KeptStorebag> keptStorebag(std::int32_t clientType);

// Keeps what a fetch brought at `fetchTime`; or, where that was that nothing has changed, that the
// kept one holds for longer. A failure is one error line.
void keepStorebag(const std::string& name, const FetchedStorebag& fetched, double fetchTime);

}  // namespace corvid
