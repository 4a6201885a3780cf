// A device as it is seen from outside: what the model of its daemon is told.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvid::simulation {

// Constant while a process of the device lives: what it is.
struct Device {
  bool isInternal = false;
  std::optional<std::int64_t> environmentPreference{};
  std::string productFamily = "Robin";    // "DeviceName"
  std::string hardwareType = "Robin5,2";  // "ProductType"
  std::string productVersion = "12.3";
  std::string buildVersion = "20F71";
  std::string hardwareModel = "R52AP";
  std::string serialNumber = "C0RV1D000001";
  std::string identifier = "0123456789abcdef0123456789abcdef01234567";
  std::int32_t timeZoneOffset = 3600;
  std::optional<std::string> batchAddress{};  // preferences
  std::optional<std::string> realtimeAddress{};
  bool forcesLogging = false;
  bool hasAdaptor = false;
  std::string storebagURL = "https://storebags.corvid.invalid/bags/birch";
  std::string libraryVersion = "8.0";
};

// And what changes while it lives; as it stands during one step.
struct Facts {
  Device device{};
  std::optional<std::string> country = "US";
  bool consents = true;
  bool keyIsGood = true;  // the file of the public key
  double draw = 0.5;      // of every backend that is made in this step
  double begin = 0;       // time of day when the step begins, seconds since 1970
  double now = 0;         // and when it has ended: after the fetch, where there is one
};

}  // namespace corvid::simulation
