#include "config/DeviceInformation.h"

#include <string_view>

#include "base/Reading.h"
#include "platform/Platform.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::string_view unknownLibraryVersion = "8.0";
constexpr std::size_t mostDeviceIDBytes = 40;

std::optional<std::string> answer(std::string_view key) {
  return Platform::current().deviceInformation().answer(key);
}

}  // namespace

std::optional<std::string> productVersion() { return answer("ProductVersion"); }
std::optional<std::string> buildVersion() { return answer("BuildVersion"); }
std::optional<std::string> productType() { return answer("ProductType"); }
std::optional<std::string> deviceName() { return answer("DeviceName"); }
std::optional<std::string> hardwareModel() { return answer("HWModelStr"); }
std::optional<std::string> serialNumber() { return answer("SerialNumber"); }

std::string uniqueDeviceID() {
  std::string identifier = answer("UniqueDeviceID").value_or(std::string());
  return identifier.size() <= mostDeviceIDBytes ? identifier : std::string();
}

bool isInternalBuild() {
  return Platform::current().internalBuild.get([] { return answer("ReleaseType") == "Internal"; });
}

std::string clientLibraryVersion() {
  Platform& platform = Platform::current();
  const auto bytes = platform.files().readFile(platform.paths().infoFile, infoFileLimit);
  if (!bytes) return std::string(unknownLibraryVersion);
  const auto information = parsePropertyList(bytes.value());
  const Dictionary* entries = information ? information.value().dictionary() : nullptr;
  const std::string* version = entries ? stringAt(*entries, "BundleVersion") : nullptr;
  return version ? *version : std::string(unknownLibraryVersion);
}

}  // namespace corvid
