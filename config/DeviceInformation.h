// Device answers by name, and the internal-build test.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace corvid {

// Asked anew at every call; nothing when the device has no answer.
std::optional<std::string> productVersion();
std::optional<std::string> buildVersion();
std::optional<std::string> productType();
std::optional<std::string> deviceName();
std::optional<std::string> hardwareModel();
std::optional<std::string> serialNumber();

// The device's unique identifier; empty without an answer, or with one of more than 40 bytes.
std::string uniqueDeviceID();

// Whether "ReleaseType" is exactly "Internal"; asked once per process.
bool isInternalBuild();

// "BundleVersion" of the client library's Info.plist, "8.0" without one. Read at each call.
std::string clientLibraryVersion();
inline constexpr std::size_t infoFileLimit = std::size_t{256} << 10;  // a longer one counts as none

}  // namespace corvid
