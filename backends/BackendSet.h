// Turns the environment section of a storebag into a session's live backends.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "backends/CorvidBackend.h"
#include "base/Value.h"

namespace corvid {

// Backend name to backend. The table holds the only strong references.
using BackendTable = std::map<std::string, std::shared_ptr<CorvidBackend>>;

// One backend per entry of `section`, each with the session's and the device's identity. Entries
// that are unknown or refused are skipped. Nothing, with an error line, without a section or a
// session info. `userInfo` may be null.
std::optional<BackendTable> createBackends(const Dictionary* section, const Dictionary* sessionInfo,
                                           const SharedDictionary& userInfo,
                                           std::optional<std::string> udid);

}  // namespace corvid
