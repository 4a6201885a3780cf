#include "backends/BackendSet.h"

#include "backends/dashboard/DashboardBackend.h"
#include "backends/https/HTTPSPostBackend.h"
#include "backends/metrix/MetrixBackend.h"
#include "backends/upload/UploadBackend.h"
#include "backends/wattbook/WattbookBackend.h"
#include "base/Log.h"
#include "base/LogFields.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "config/DeviceInformation.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// These devices have no diagnostics service that an adaptor could forward to.
bool hasNoMetrix(const BackendIdentity& identity) { return identity.hardwareType == "Lanai"; }

// The start is taken here, so that all backends of a set have the same one.
BackendIdentity identityFor(const Dictionary& sessionInfo, std::optional<std::string> udid) {
  BackendIdentity identity;
  identity.setStartTimestamp(Platform::current().clock().now());
  identity.productVersion = productVersion();
  identity.buildVersion = buildVersion();
  identity.hardwareType = productType();
  identity.productFamily = deviceName();
  identity.isInternal = isInternalBuild();
  identity.setSelfVersion(clientLibraryVersion());
  identity.sessionID =
      static_cast<std::uint32_t>(int32At(sessionInfo, kCorvidSessionInfoSessionID));
  identity.compType = int32At(sessionInfo, kCorvidSessionInfoClientType);
  identity.clientVersion =
      static_cast<std::uint16_t>(int32At(sessionInfo, kCorvidSessionInfoClientVersion));
  identity.requireUserInfo = booleanAt(sessionInfo, kCorvidSessionInfoRequireUserInfo);
  identity.batchEvents = booleanAt(sessionInfo, kCorvidSessionInfoBatchEvent);
  identity.udid = std::move(udid);
  return identity;
}

}  // namespace

void BackendIdentity::setSelfVersion(std::string_view version) {
  const std::vector<std::string_view> components = split(version, '.');
  const auto component = [&](std::size_t at) {
    return static_cast<std::uint8_t>(at < components.size() ? integerFromText(components[at]) : 0);
  };
  selfVersionMajor = component(0);
  selfVersionMinor = component(1);
}

std::shared_ptr<CorvidBackend> CorvidBackend::newBackendWithName(const std::string& name,
                                                                 const Dictionary* profile,
                                                                 const SharedIdentity& identity) {
  if (name == kCorvidBackendDashboard)
    return DashboardBackend::initWithName(name, profile, identity);
  if (name == kCorvidBackendUploadServer)
    return UploadBackend::initWithName(name, profile, identity);
  if (name == kCorvidBackendHTTPPost || name == kCorvidBackendHTTPPost2)
    return HTTPSPostBackend::initWithName(name, profile, identity);
  if (name == kCorvidBackendWattbook)
    return std::make_shared<WattbookBackend>(name, profile, identity);
  if (name == kCorvidBackendMetrix && !hasNoMetrix(*identity))
    return MetrixBackend::initWithName(name, profile, identity);
  logError("CorvidBackend(newBackendWithName): {}", name);
  return nullptr;
}

std::optional<BackendTable> createBackends(const Dictionary* section, const Dictionary* sessionInfo,
                                           const SharedDictionary& userInfo,
                                           std::optional<std::string> udid) {
  if (section == nullptr) {
    logError("createBackends: Attempted to create backends with nil storebag");
    return std::nullopt;
  }
  if (sessionInfo == nullptr) {
    logError("createBackends: Attempted to create backends with nil session info");
    return std::nullopt;
  }
  const auto identity =
      std::make_shared<const BackendIdentity>(identityFor(*sessionInfo, std::move(udid)));
  BackendTable backends;
  for (const auto& [name, profile] : *section) {
    const LoggingBackend logged(name);
    auto backend = CorvidBackend::newBackendWithName(name, profile.dictionary(), identity);
    if (!backend) continue;
    backend->setUserInfoDict(userInfo);
    backends.emplace(name, std::move(backend));
  }
  return backends;
}

}  // namespace corvid
