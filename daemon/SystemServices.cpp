#include "daemon/SystemServices.h"

#include "platform/data/FilePreferences.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/StoredConsent.h"
#include "platform/data/SystemRandom.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/network/SystemNetwork.h"
#include "platform/system/DynamicBundleLoader.h"
#include "platform/system/JournalPowerLog.h"
#include "platform/system/SystemDeviceInformation.h"
#include "platform/system/SystemLocale.h"
#include "protocol/Limits.h"

namespace corvid {

Platform::Services systemServices(const Paths& paths, const Deployment& deployment,
                                  const std::shared_ptr<Clock>& clock,
                                  const std::shared_ptr<Launcher>& launcher,
                                  std::optional<FileStamp> triedBundle) {
  const auto http =
      std::make_shared<CurlHTTPClient>(clock, CurlHTTPClient::Options{
                                                  .caFile = deployment.caFile,
                                                  .allowInsecureHTTP = deployment.allowInsecureHTTP,
                                                  .onIdle = [launcher] { launcher->workEnded(); },
                                              });
  const auto network =
      std::make_shared<SystemNetwork>(clock, [launcher] { launcher->workEnded(); });
  const auto preferences = std::make_shared<FilePreferences>(paths.preferencesFolder);
  const auto random = std::make_shared<SystemRandom>();
  return {
      .clock = clock,
      .http = http,
      .network = network,
      .preferences = preferences,
      .deviceInformation = std::make_shared<SystemDeviceInformation>(paths.deviceFile),
      .locale = std::make_shared<SystemLocale>(paths.localeFile),
      .consent = std::make_shared<StoredConsent>(preferences, random),
      .random = random,
      .keepAlive = launcher,
      .files = std::make_shared<LocalFileSystem>(),
      .extensionTokens = std::make_shared<ExtensionTokens>(random, limits::uploadBytesUnderWay),
      .bundles = std::make_shared<DynamicBundleLoader>(paths.performanceBundle, triedBundle),
      .powerLog = std::make_shared<JournalPowerLog>(paths.journalSocket),
      .paths = paths,
      .deployment = deployment,
  };
}

}  // namespace corvid
