#include "backends/BackendSet.h"

#include "base/Log.h"
#include "base/Reading.h"
#include "config/DeviceInformation.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

std::optional<BackendTable> createBackends(const Dictionary* section, const Dictionary* sessionInfo,
                                           const Dictionary* userInfo, const char* udid) {
  if (section == nullptr) {
    logError("createBackends: Attempted to create backends with nil storebag");
    return std::nullopt;
  }
  if (sessionInfo == nullptr) {
    logError("createBackends: Attempted to create backends with nil session info");
    return std::nullopt;
  }
  // Taken once, so that all backends of the set have the same start.
  const TimeValue start = Platform::current().clock().now();
  const std::optional<std::string> version = productVersion();
  const std::optional<std::string> build = buildVersion();
  const std::optional<std::string> hardware = productType();
  const std::optional<std::string> family = deviceName();
  const bool internal = isInternalBuild();
  const std::string selfVersion = clientLibraryVersion();
  const std::int32_t clientType = int32At(*sessionInfo, kCorvidSessionInfoClientType);
  const auto sessionID =
      static_cast<std::uint32_t>(int32At(*sessionInfo, kCorvidSessionInfoSessionID));
  const auto clientVersion =
      static_cast<std::uint16_t>(int32At(*sessionInfo, kCorvidSessionInfoClientVersion));
  const bool requireUserInfo = booleanAt(*sessionInfo, kCorvidSessionInfoRequireUserInfo);
  const bool batchEvents = booleanAt(*sessionInfo, kCorvidSessionInfoBatchEvent);

  BackendTable backends;
  for (const auto& [name, profile] : *section) {
    const std::shared_ptr<CorvidBackend> backend =
        CorvidBackend::newBackendWithName(name, profile.dictionary(), family, clientType);
    if (!backend) continue;
    backend->setSessionID(sessionID);
    backend->setCompType(clientType);
    backend->setClientVersion(clientVersion);
    backend->setUdid(udid);
    backend->setProductVersion(version);
    backend->setBuildVersion(build);
    backend->setHardwareType(hardware);
    backend->setIsInternal(internal);
    backend->setRequireUserInfo(requireUserInfo);
    backend->setBatchEvents(batchEvents);
    backend->setUserInfoDict(userInfo ? std::optional(*userInfo) : std::nullopt);
    backend->setSelfVersion(selfVersion);
    backend->setStartTimestamp(start);
    backends.emplace(name, backend);
  }
  return backends;
}

}  // namespace corvid
