#include "config/Environment.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "config/DeviceInformation.h"
#include "config/StorebagSerials.h"
#include "platform/Platform.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

struct ClientType {
  std::string_view storebagName;  // empty: none
  std::string_view tag;
};

constexpr std::array<ClientType, 18> clientTypes{{
    {"", "ZB"},
    {"", "ZC"},
    {"", "ZDN"},
    {"", "ZF"},
    {"", "ZG"},
    {"lumen", "ZH"},
    {"tessel", "ZJ"},
    {"parlor", "ZK"},
    {"orrery", "ZL"},
    {"cadence", "ZM"},
    {"quill", "ZN"},
    {"parlor", "ZP"},
    {"ledger", "ZQRA"},
    {"parlor", "ZRSTU"},
    {"tessel", "ZJ-VWX"},
    {"tessel", "ZJ-YQBDE"},
    {"folio", "ZTUVWXY"},
    {"reel", "ZWXYZB"},
}};

constexpr std::array<std::string_view, 5> environmentNames{"", "development", "halcyon_internal",
                                                           "seed", "release"};

constexpr std::int64_t maxRefreshCycle = 86400;

const ClientType* clientTypeAt(std::int32_t clientType) {
  const auto index = static_cast<std::uint32_t>(clientType);
  return index < clientTypes.size() ? &clientTypes[index] : nullptr;
}

std::optional<std::string> unlessEmpty(std::string_view text) {
  return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

const Dictionary* sectionNamed(const Dictionary& storebag, CorvidEnvironmentType type) {
  const auto name = environmentNameForType(type);
  return name ? dictionaryAt(storebag, *name) : nullptr;
}

constexpr auto internalType = static_cast<std::uint32_t>(CorvidEnvironmentType::internal);
constexpr auto releaseType = static_cast<std::uint32_t>(CorvidEnvironmentType::release);

// The low 32 bits of the preference, valid or not.
std::optional<std::uint32_t> preferredEnvironment() {
  Preferences& preferences = Platform::current().preferences();
  const auto preferred = asInteger(pointerTo(preferences.value(corvidSuite, "environmentType")));
  return preferred ? std::optional(static_cast<std::uint32_t>(*preferred)) : std::nullopt;
}

// As things stand; settles and logs nothing.
Sourced<std::uint32_t> environmentNow() {
  if (const auto preferred = preferredEnvironment())
    return {*preferred > releaseType ? internalType : *preferred, "preference"};
  const Sourced<bool> internal = currentInternalBuild();
  return {internal.value ? internalType : releaseType, internal.source};
}

Sourced<std::uint32_t> userDefaultsEnvironment() {
  const auto preferred = preferredEnvironment();
  if (preferred && *preferred > releaseType)
    logError("userDefaultsEnvironment: Invalid environment type {}", *preferred);
  if (!preferred) isInternalBuild();  // settled from here on
  const Sourced<std::uint32_t> found = environmentNow();
  logInfo("userDefaultsEnvironment: Environment type {}", found.value);
  return found;
}

// The current environment's section, or nullptr after one error line.
const Dictionary* currentSection(const Dictionary& storebag, std::int32_t clientType) {
  CorvidEnvironmentType environment = currentEnvironment();
  if (environment == CorvidEnvironmentType::seed && !sectionNamed(storebag, environment)) {
    logWarning(
        "fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.");
    environment = CorvidEnvironmentType::release;
  }
  const Dictionary* const section = sectionNamed(storebag, environment);
  const auto why = loggingReason(Reason::noSectionForEnvironment);
  if (section == nullptr)
    logError(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type {} with {} environment",
        clientType, orNull(environmentNameForType(environment)));
  return section;
}

// What the device does with a storebag that is older than one it has seen.
std::optional<StorebagFault> refusalOfOlder(const std::optional<std::string>& name,
                                            std::int32_t clientType, const Dictionary& storebag) {
  if (!name || !Platform::current().deployment()->refuseOlderStorebags) return std::nullopt;
  const std::int64_t serial = serialOf(storebag);
  const std::int64_t highest = highestSerialSeen(*name);
  if (serial >= highest) {
    noteSerial(*name, serial);
    return std::nullopt;
  }
  const auto why = loggingReason(Reason::storebagOlder);
  logError(
      "fetchStorebagForEnvironmentAndClientType: The storebag for client type {} has serial {}, and {} was seen; it is not used",
      clientType, serial, highest);
  return StorebagFault{Reason::storebagOlder, fmt::format("serial {}, below {}", serial, highest)};
}

}  // namespace

std::optional<std::string> storebagNameForClientType(std::int32_t clientType) {
  const ClientType* type = clientTypeAt(clientType);
  return type ? unlessEmpty(type->storebagName) : std::nullopt;
}

std::string_view clientTagForClientType(std::int32_t clientType) {
  const ClientType* type = clientTypeAt(clientType);
  return type ? type->tag : std::string_view();
}

std::optional<std::int32_t> clientTypeNamed(std::string_view name) {
  for (const auto part : {&ClientType::tag, &ClientType::storebagName})
    for (std::size_t type = 0; type < clientTypes.size(); ++type)
      if (!name.empty() && equalsIgnoringCase(clientTypes[type].*part, name))
        return static_cast<std::int32_t>(type);
  return std::nullopt;
}

std::optional<std::string> environmentNameForType(CorvidEnvironmentType type) {
  const auto index = static_cast<std::uint32_t>(type);
  return index < environmentNames.size() ? unlessEmpty(environmentNames[index]) : std::nullopt;
}

std::optional<CorvidEnvironmentType> environmentTypeNamed(std::string_view name) {
  const auto* const found = std::ranges::find(environmentNames, name);
  if (name.empty() || found == environmentNames.end()) return std::nullopt;
  return static_cast<CorvidEnvironmentType>(found - environmentNames.begin());
}

const Dictionary* sectionForEnvironment(const Dictionary& storebag, CorvidEnvironmentType type) {
  const Dictionary* const section = sectionNamed(storebag, type);
  return section || type != CorvidEnvironmentType::seed
             ? section
             : sectionNamed(storebag, CorvidEnvironmentType::release);
}

CorvidEnvironmentType currentEnvironment() {
  return static_cast<CorvidEnvironmentType>(
      Platform::current().environmentType.get(userDefaultsEnvironment).value);
}

DeviceAnswer currentEnvironmentName() {
  const Sourced<std::uint32_t>* const known = Platform::current().environmentType.known();
  const auto [type, source] = known ? *known : environmentNow();
  auto name = environmentNameForType(static_cast<CorvidEnvironmentType>(type));
  const bool isNamed = name.has_value();
  return {std::move(name), isNamed ? source : std::string_view()};
}

void chooseSection(const Dictionary& whole, std::int32_t clientType, FetchedStorebag& fetched) {
  const Dictionary* section = currentSection(whole, clientType);
  if (section == nullptr) {
    fetched.fault = {Reason::noSectionForEnvironment,
                     environmentNameForType(currentEnvironment()).value_or("none")};
    return;
  }
  fetched.storebag = *section;

  const std::string* version = stringAt(whole, "version");
  if (version == nullptr) {
    const auto why = loggingReason(Reason::storebagMalformed);
    logError(
        "fetchStorebagForEnvironmentAndClientType: The storebag for client type {} has no version",
        clientType);
    fetched.fault = {Reason::storebagMalformed, "it lacks \"version\""};
    return;
  }
  fetched.version = *version;

  if (const auto refreshCycle = integerAt(whole, "refresh_cycle")) {
    fetched.maxAge = static_cast<std::int32_t>(std::clamp<std::int64_t>(
        *refreshCycle, std::numeric_limits<std::int32_t>::min(), maxRefreshCycle));
    logInfo("fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge={}",
            fetched.maxAge);
  }
}

FetchedStorebag fetchStorebagForEnvironmentAndClientType(
    std::int32_t clientType, const std::optional<std::string>& lastModified) {
  if (clientType == 0) {
    const auto why = loggingReason(Reason::unknownClientType);
    logError(
        "fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type {}",
        clientType);
    return {.fault = StorebagFault{Reason::unknownClientType}};
  }
  // Without a name the server is asked all the same; only client type 0 is known to have nothing.
  const auto name = storebagNameForClientType(clientType);
  FetchedStorebag fetched = fetchStorebagWithName(name, lastModified);
  if (!fetched.storebag) {
    const auto why =
        loggingReason(fetched.fault ? fetched.fault->reason : Reason::storebagMalformed);
    if (!fetched.notModified)
      logError(
          "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type {}",
          clientType);
    return fetched;
  }
  const Dictionary whole = *std::exchange(fetched.storebag, std::nullopt);
  if (auto refusal = fetched.fault ? std::nullopt : refusalOfOlder(name, clientType, whole)) {
    fetched.fault = std::move(refusal);
    fetched.lastModified.reset();  // the next attempt shall not be told that nothing has changed
    return fetched;
  }
  chooseSection(whole, clientType, fetched);
  return fetched;
}

}  // namespace corvid
