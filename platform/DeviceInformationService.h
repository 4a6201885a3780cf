// Answers questions about the device by key: "ProductVersion", "BuildVersion", "ProductType",
// "DeviceName", "HWModelStr", "SerialNumber", "UniqueDeviceID", "ReleaseType". Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid {

class DeviceInformationService {
 public:
  virtual ~DeviceInformationService() = default;
  // Nothing when the service has no answer for the key.
  virtual std::optional<std::string> answer(std::string_view key) = 0;
};

}  // namespace corvid
