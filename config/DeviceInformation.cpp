#include "config/DeviceInformation.h"

#include <string_view>

#include "base/Reading.h"
#include "platform/Platform.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::string_view unknownLibraryVersion = "8.0";

std::optional<std::string> answer(std::string_view key) {
  return Platform::current().deviceInformation().answer(key).value;
}

Sourced<bool> internalBuild() {
  const DeviceAnswer type = Platform::current().deviceInformation().answer("ReleaseType");
  return {type.value == "Internal", type.value ? type.source : "default"};
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

bool isInternalBuild() { return Platform::current().internalBuild.get(internalBuild).value; }

Sourced<bool> currentInternalBuild() {
  const Sourced<bool>* const known = Platform::current().internalBuild.known();
  return known ? *known : internalBuild();
}

Result<std::optional<std::string>> bundleVersion(FileSystem& files, const std::string& path) {
  const Result<std::string> bytes = files.readFile(path, infoFileLimit);
  if (!bytes) return bytes.failure();
  const Result<Dictionary> information = parseDictionary(bytes.value());
  if (!information) return information.failure();
  const std::string* version = stringAt(information.value(), "BundleVersion");
  return version ? std::optional(*version) : std::nullopt;
}

std::string clientLibraryVersion() {
  Platform& platform = Platform::current();
  const auto version = bundleVersion(platform.files(), platform.paths().infoFile);
  return (version ? version.value() : std::nullopt).value_or(std::string(unknownLibraryVersion));
}

}  // namespace corvid
