// Stable names for things.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/Value.h"

namespace corvid {

// What kept identifiers may cost together, about: the names that they belong to come from clients.
inline constexpr std::size_t keptIdentifierBytes = std::size_t{256} << 10;

// The identifier kept under "uuid:<first>:<second>" in the daemon's preferences, made at first use.
// Where it cannot be stored, or there is no room for another, it holds until the process ends;
// where too many of those are kept as well, there is a new one at each call. Either is logged.
std::string getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& first, const std::optional<std::string>& second);

// Lower-cased client name, ":", lower-cased service name; absent ones are empty.
std::string clientKey(const Dictionary* userInfo);

}  // namespace corvid
