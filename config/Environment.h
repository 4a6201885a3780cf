// Which environment the device reports in, and which storebag and tag belong to a client type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/StorebagFetch.h"
#include "platform/Device.h"

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
// The client type of that tag, or the first one of that storebag, in any case: "ZJ" and "tessel"
// are both 6. Nothing where neither is known.
std::optional<std::int32_t> clientTypeNamed(std::string_view name);
// The storebag section of an environment; nothing for none.
std::optional<std::string> environmentNameForType(CorvidEnvironmentType type);

// The environment of that section; nothing for other names.
std::optional<CorvidEnvironmentType> environmentTypeNamed(std::string_view name);
// The section of a whole storebag that serves an environment, seed that of release where it has
// none; nullptr where there is none.
const Dictionary* sectionForEnvironment(const Dictionary& storebag, CorvidEnvironmentType type);

// The process's environment: the preference "environmentType", else by the kind of build. Computed
// once per process.
CorvidEnvironmentType currentEnvironment();
// Its name and what chose it, without a line in the log; where the process has not settled it yet,
// what it would be now.
DeviceAnswer currentEnvironmentName();

// Takes from a whole storebag what serves the current environment: the section, the version, and
// the age where the storebag names one; or the fault that keeps it from serving, which has been
// logged.
void chooseSection(const Dictionary& whole, std::int32_t clientType, FetchedStorebag& fetched);

// Fetches the storebag of a client type and cuts it down to the section of the current environment,
// with the storebag's version. Where there is no section the reason has been logged, save where the
// storebag is unchanged. A section without a version is one that its server must not have sent.
FetchedStorebag fetchStorebagForEnvironmentAndClientType(
    std::int32_t clientType, const std::optional<std::string>& lastModified);

}  // namespace corvid
