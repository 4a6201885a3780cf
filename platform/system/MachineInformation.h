// What the machine's firmware, kernel and system files say about it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid {

// The machine's own answer to a device-information key (listed at SystemDeviceInformation), read
// from files below `root` ("" for the machine itself).
std::optional<std::string> machineAnswer(std::string_view key, const std::string& root);

}  // namespace corvid
