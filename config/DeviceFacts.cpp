#include "config/DeviceFacts.h"

#include <string>
#include <utility>

#include "config/DeviceInformation.h"
#include "config/Environment.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

Dictionary entry(Value value, std::string_view source) {
  return {{"value", std::move(value)}, {"source", std::string(source)}};
}

Dictionary entry(const DeviceAnswer& answer) {
  if (!answer.value) return {{"value", Value()}, {"source", Value()}};
  return entry(*answer.value, answer.source);
}

}  // namespace

Dictionary deviceFacts() {
  Platform& platform = Platform::current();
  DeviceInformationService& device = platform.deviceInformation();
  const Sourced<bool> internal = currentInternalBuild();
  const Sourced<bool> consent = platform.consent().diagnosticsSubmission();
  const auto offset = platform.locale().timeZoneOffset(platform.clock().now());
  return {{"country", entry(platform.locale().countryAnswer())},
          {"productFamily", entry(device.answer("DeviceName"))},
          {"hardwareType", entry(device.answer("ProductType"))},
          {"productVersion", entry(device.answer("ProductVersion"))},
          {"buildVersion", entry(device.answer("BuildVersion"))},
          {"internal", entry(internal.value, internal.source)},
          {"environment", entry(currentEnvironmentName())},
          {"consent", entry(consent.value, consent.source)},
          {"timeZoneOffset", entry(offset.value, offset.source)}};
}

}  // namespace corvid
