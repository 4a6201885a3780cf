// Device answers by name, and the internal-build test.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/Result.h"
#include "platform/Device.h"
#include "platform/FileSystem.h"

namespace corvid {

// Asked anew at every call; nothing when the device has no answer.
std::optional<std::string> productVersion();
std::optional<std::string> buildVersion();
std::optional<std::string> productType();
std::optional<std::string> deviceName();
std::optional<std::string> hardwareModel();
std::optional<std::string> serialNumber();

// The device's unique identifier; empty without an answer, or with one of more bytes than these.
inline constexpr std::size_t mostDeviceIDBytes = 40;
std::string uniqueDeviceID();

// Whether "ReleaseType" is exactly "Internal"; asked once per process.
bool isInternalBuild();
// The same with its source; where nobody has asked yet, what the answer would be now.
Sourced<bool> currentInternalBuild();

// The text under "BundleVersion" of an Info.plist; nothing where it has none. The failure's code is
// the system's where the file cannot be read (EFBIG where it is longer than infoFileLimit), else 0.
Result<std::optional<std::string>> bundleVersion(FileSystem& files, const std::string& path);
inline constexpr std::size_t infoFileLimit = std::size_t{256} << 10;

// "BundleVersion" of the client library's Info.plist, "8.0" without one. Read at each call.
std::string clientLibraryVersion();

}  // namespace corvid
