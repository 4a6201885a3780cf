#include "daemon/check/LookingPlatform.h"

#include <fmt/format.h>

#include <memory>
#include <utility>

#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "platform/data/StoredConsent.h"
#include "platform/data/SystemRandom.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/system/SystemClock.h"
#include "platform/system/SystemDeviceInformation.h"
#include "platform/system/SystemLocale.h"

namespace corvid {

namespace {

Platform::Services lookingServices(const Paths& paths) {
  const Result<Deployment> read = readDeployment(paths.deploymentFile);
  const Deployment deployment = read ? read.value() : Deployment();
  Platform::Services services;
  services.clock = std::make_shared<SystemClock>();
  services.http = std::make_shared<CurlHTTPClient>(
      services.clock, CurlHTTPClient::Options{.caFile = deployment.caFile,
                                              .allowInsecureHTTP = deployment.allowInsecureHTTP});
  services.preferences = std::make_shared<SeenPreferences>(paths.preferencesFolder);
  services.deviceInformation =
      std::make_shared<SystemDeviceInformation>(paths.deviceFile, paths.root);
  services.locale = std::make_shared<SystemLocale>(paths.localeFile);
  services.random = std::make_shared<SystemRandom>();
  services.consent = std::make_shared<StoredConsent>(services.preferences, services.random);
  services.files = std::make_shared<LocalFileSystem>();
  services.paths = paths;
  services.deployment = deployment;
  return services;
}

}  // namespace

Dictionary SeenPreferences::entries(std::string_view suite) const {
  Result<Dictionary> read = readDictionaryFile(fmt::format("{}/{}.plist", _folder, suite));
  return read ? std::move(read).value() : Dictionary();
}

std::optional<Value> SeenPreferences::value(std::string_view suite, std::string_view key) {
  const Dictionary all = entries(suite);
  const Value* found = all.find(key);
  return found ? std::optional(*found) : std::nullopt;
}

std::vector<std::string> SeenPreferences::keys(std::string_view suite) {
  std::vector<std::string> names;
  for (const auto& entry : entries(suite)) names.push_back(entry.key);
  return names;
}

LookingPlatform::LookingPlatform(const Paths& paths) : _platform(lookingServices(paths)) {
  Platform::install(&_platform);
}

LookingPlatform::~LookingPlatform() { Platform::install(nullptr); }

}  // namespace corvid
