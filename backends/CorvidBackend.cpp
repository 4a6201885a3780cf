#include "backends/CorvidBackend.h"

#include <utility>

#include "base/Text.h"
#include "platform/Platform.h"
#include "platform/data/Crypto.h"

namespace corvid {

CorvidBackend::CorvidBackend(std::string name, Dictionary profile, SharedIdentity identity,
                             std::optional<std::string> displayURL)
    : _platform(Platform::current()),
      _name(std::move(name)),
      _profile(std::move(profile)),
      _identity(std::move(identity)),
      _displayURL(std::move(displayURL)),
      _samplingFactor(_platform.random().uniform()),
      _account(std::make_shared<LedgerAccount>(Ledger::create(_platform.clock()), 0, _name)) {}

std::string_view wordOf(BackendState state) {
  switch (state) {
    case BackendState::waiting: return "waiting";
    case BackendState::disabled: return "disabled";
    case BackendState::sending: return "sending";
    case BackendState::held: return "held";
  }
  return "waiting";
}

std::string CorvidBackend::convertIntoSHA256(std::string_view text) {
  return hexadecimal(sha256(text.substr(0, utf16Length(text))));
}

std::optional<std::string> CorvidBackend::sendMessage(const Dictionary*, const TimeValue&,
                                                      std::uint16_t, std::uint16_t, EventID,
                                                      MessageFlag) {
  _account->drop(_offered, Reason::takesNoEvents);
  return std::nullopt;
}

std::optional<std::string> CorvidBackend::sendMessage(const Dictionary* payload,
                                                      const TimeValue& timestamp,
                                                      std::uint16_t method, std::uint16_t respCode,
                                                      MessageFlag flag, EventMark mark) {
  _offered = mark;
  return sendMessage(payload, timestamp, method, respCode, EventID{++_eventID}, flag);
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

std::optional<std::string> CorvidBackend::combinedSessionIDString() const {
  const MutexLock lock(_lock);
  return _combinedSessionIDString;
}

void CorvidBackend::setCombinedSessionIDString(std::string sessionID) {
  const MutexLock lock(_lock);
  _combinedSessionIDString = std::move(sessionID);
}

SharedDictionary CorvidBackend::userInfoDict() const {
  const MutexLock lock(_lock);
  return _userInfoDict;
}

void CorvidBackend::setUserInfoDict(SharedDictionary userInfoDict) {
  const MutexLock lock(_lock);
  _userInfoDict.swap(userInfoDict);  // the old one goes after the lock
}

std::optional<double> CorvidBackend::samplingThreshold() const {
  const MutexLock lock(_lock);
  return _samplingThreshold;
}

void CorvidBackend::setSamplingThreshold(std::optional<double> samplingThreshold) {
  const MutexLock lock(_lock);
  _samplingThreshold = samplingThreshold;
}

}  // namespace corvid
