// Who reports, and from which device.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/TimeValue.h"

namespace corvid {

// What all backends of one session know of it and of the device: filled in once, by whoever makes
// them, and constant from then on. An absent text is an answer that the device does not have.
struct BackendIdentity {
  std::uint32_t sessionID = 0;
  std::int32_t compType = 0;  // the client type
  std::uint16_t clientVersion = 0;
  std::optional<std::string> udid{};
  std::optional<std::string> productVersion{};
  std::optional<std::string> buildVersion{};
  std::optional<std::string> hardwareType{};
  std::optional<std::string> productFamily{};
  bool isInternal = false;
  bool requireUserInfo = false;  // events wait until there is user info
  bool batchEvents = false;      // the client's wish
  std::uint8_t selfVersionMajor = 0;
  std::uint8_t selfVersionMinor = 0;
  double startTimeStamp = 0;

  // Takes major and minor from the first two components of a text such as "8.0".
  void setSelfVersion(std::string_view version);
  void setStartTimestamp(const TimeValue& timestamp) { startTimeStamp = timestamp.asDouble(); }
};

using SharedIdentity = std::shared_ptr<const BackendIdentity>;

}  // namespace corvid
