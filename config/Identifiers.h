// Stable names for things.
#pragma once

#include <optional>
#include <string>

#include "platform/base/Value.h"

namespace corvid {

// The identifier kept under "uuid:<first>:<second>" in the daemon's preferences, made at first use.
std::string getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& first, const std::optional<std::string>& second);

// Lower-cased client name, ":", lower-cased service name; absent ones are empty.
std::string clientKey(const Dictionary* userInfo);

}  // namespace corvid
