// Which environment the device reports in, and which storebag and tag belong to a client type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

enum class CorvidEnvironmentType : std::uint32_t {
  none = 0,
  development = 1,
  internal = 2,
  seed = 3,
  release = 4,
};

// Name of the storebag that serves a client type; nothing for 0 to 4, negative and above 17.
std::optional<std::string> storebagNameForClientType(std::int32_t clientType);
// The short client tag; empty outside 0 to 17.
std::string_view clientTagForClientType(std::int32_t clientType);
// The storebag section of an environment; nothing for none.
std::optional<std::string> environmentNameForType(CorvidEnvironmentType type);

// The process's environment: the preference "environmentType", else by the kind of build. Computed
// once per process.
CorvidEnvironmentType currentEnvironment();

// Fetches the storebag of a client type and returns the section of the current environment, or
// nothing (logged, except where the storebag is unchanged). `version` receives the storebag's
// version. Throws std::invalid_argument for a storebag that has the section but no version.
std::optional<Dictionary> fetchStorebagForEnvironmentAndClientType(
    std::int32_t clientType, std::int32_t& maxAge, std::optional<std::string>& version,
    bool& notModified, std::optional<std::string>* lastModified);

}  // namespace corvid
