// Device answers by name, and the internal-build test.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

namespace corvid {

// Asked anew at every call; nothing when the device has no answer.
std::optional<std::string> productVersion();
std::optional<std::string> buildVersion();
std::optional<std::string> productType();
std::optional<std::string> deviceName();
std::optional<std::string> hardwareModel();
std::optional<std::string> serialNumber();

// Writes the device's unique identifier, terminated, into a zero-filled buffer. Without an answer,
// or with one that does not fit, the buffer holds an empty text.
void uniqueDeviceID(std::span<char> buffer);
inline constexpr std::size_t uniqueDeviceIDCapacity = 41;  // 40 characters and the end

// Whether "ReleaseType" is exactly "Internal"; asked once per process.
bool isInternalBuild();

// "BundleVersion" of the client library's Info.plist, "8.0" without one. Read at each call.
std::string clientLibraryVersion();
inline constexpr std::size_t infoFileLimit = std::size_t{256} << 10;  // a longer one counts as none

}  // namespace corvid
