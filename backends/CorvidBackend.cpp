#include "backends/CorvidBackend.h"

#include <algorithm>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "platform/Platform.h"
#include "platform/data/Crypto.h"

namespace corvid {

CorvidBackend::CorvidBackend(std::string name, Dictionary profile,
                             std::optional<std::string> productFamily)
    : _name(std::move(name)),
      _profile(std::move(profile)),
      _productFamily(std::move(productFamily)),
      _samplingFactor(Platform::current().random().uniform()) {}

std::string CorvidBackend::convertIntoSHA256(std::string_view text) {
  return hexadecimal(sha256(text.substr(0, utf16Length(text))));
}

void CorvidBackend::setSelfVersion(std::string_view version) {
  const std::vector<std::string_view> components = split(version, '.');
  const auto component = [&](std::size_t at) {
    return static_cast<std::uint8_t>(at < components.size() ? integerFromText(components[at]) : 0);
  };
  RecursiveLock lock(_lock);
  _selfVersionMajor = component(0);
  _selfVersionMinor = component(1);
}

void CorvidBackend::setStartTimestamp(const TimeValue& timestamp) {
  RecursiveLock lock(_lock);
  _startTimeStamp = timestamp.asDouble();
}

std::optional<std::string> CorvidBackend::sendMessage(const Dictionary*, const TimeValue&,
                                                      std::uint16_t, std::uint16_t, EventID,
                                                      MessageFlag) {
  return std::nullopt;
}

std::optional<std::string> CorvidBackend::sendMessage(const Dictionary* payload,
                                                      const TimeValue& timestamp,
                                                      std::uint16_t method, std::uint16_t respCode,
                                                      MessageFlag flag) {
  EventID eventID{};
  {
    RecursiveLock lock(_lock);
    eventID = EventID{++_eventID};
  }
  return sendMessage(payload, timestamp, method, respCode, eventID, flag);
}

std::optional<std::string> CorvidBackend::flushMessagesWithCompletion(FlushCompletion completion) {
  if (completion) completion(std::nullopt, std::nullopt);
  return std::nullopt;
}

bool CorvidBackend::uploadFileAtPath(const std::string&, const std::string&) { return false; }
bool CorvidBackend::uploadLogData(const Array&) { return false; }

void CorvidBackend::setCorrelatedSessionID(std::string sessionID) {
  setCombinedSessionIDString(std::move(sessionID));
}

}  // namespace corvid
