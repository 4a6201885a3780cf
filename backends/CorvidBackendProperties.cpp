// Properties of the base; any thread may read and set them.
#include <utility>

#include "backends/CorvidBackend.h"

namespace corvid {

std::uint32_t CorvidBackend::sessionID() const {
  RecursiveLock lock(_lock);
  return _sessionID;
}
void CorvidBackend::setSessionID(std::uint32_t sessionID) {
  RecursiveLock lock(_lock);
  _sessionID = sessionID;
}

std::optional<std::string> CorvidBackend::combinedSessionIDString() const {
  RecursiveLock lock(_lock);
  return _combinedSessionIDString;
}
void CorvidBackend::setCombinedSessionIDString(std::string combinedSessionIDString) {
  RecursiveLock lock(_lock);
  _combinedSessionIDString = std::move(combinedSessionIDString);
}

std::int32_t CorvidBackend::hierarchy() const {
  RecursiveLock lock(_lock);
  return _hierarchy;
}
void CorvidBackend::setHierarchy(std::int32_t hierarchy) {
  RecursiveLock lock(_lock);
  _hierarchy = hierarchy;
}

std::int32_t CorvidBackend::compType() const {
  RecursiveLock lock(_lock);
  return _compType;
}
void CorvidBackend::setCompType(std::int32_t compType) {
  RecursiveLock lock(_lock);
  _compType = compType;
}

std::uint16_t CorvidBackend::clientVersion() const {
  RecursiveLock lock(_lock);
  return _clientVersion;
}
void CorvidBackend::setClientVersion(std::uint16_t clientVersion) {
  RecursiveLock lock(_lock);
  _clientVersion = clientVersion;
}

const char* CorvidBackend::udid() const {
  RecursiveLock lock(_lock);
  return _udid;
}
void CorvidBackend::setUdid(const char* udid) {
  RecursiveLock lock(_lock);
  _udid = udid;
}

std::optional<std::string> CorvidBackend::displayURL() const {
  RecursiveLock lock(_lock);
  return _displayURL;
}
void CorvidBackend::setDisplayURL(std::optional<std::string> displayURL) {
  RecursiveLock lock(_lock);
  _displayURL = std::move(displayURL);
}

std::optional<std::string> CorvidBackend::productVersion() const {
  RecursiveLock lock(_lock);
  return _productVersion;
}
void CorvidBackend::setProductVersion(std::optional<std::string> productVersion) {
  RecursiveLock lock(_lock);
  _productVersion = std::move(productVersion);
}

std::optional<std::string> CorvidBackend::buildVersion() const {
  RecursiveLock lock(_lock);
  return _buildVersion;
}
void CorvidBackend::setBuildVersion(std::optional<std::string> buildVersion) {
  RecursiveLock lock(_lock);
  _buildVersion = std::move(buildVersion);
}

std::optional<std::string> CorvidBackend::hardwareType() const {
  RecursiveLock lock(_lock);
  return _hardwareType;
}
void CorvidBackend::setHardwareType(std::optional<std::string> hardwareType) {
  RecursiveLock lock(_lock);
  _hardwareType = std::move(hardwareType);
}

std::optional<std::string> CorvidBackend::productFamily() const {
  RecursiveLock lock(_lock);
  return _productFamily;
}
void CorvidBackend::setProductFamily(std::optional<std::string> productFamily) {
  RecursiveLock lock(_lock);
  _productFamily = std::move(productFamily);
}

bool CorvidBackend::isInternal() const {
  RecursiveLock lock(_lock);
  return _isInternal;
}
void CorvidBackend::setIsInternal(bool isInternal) {
  RecursiveLock lock(_lock);
  _isInternal = isInternal;
}

std::optional<Dictionary> CorvidBackend::userInfoDict() const {
  RecursiveLock lock(_lock);
  return _userInfoDict;
}
void CorvidBackend::setUserInfoDict(std::optional<Dictionary> userInfoDict) {
  RecursiveLock lock(_lock);
  _userInfoDict = std::move(userInfoDict);
}

bool CorvidBackend::requireUserInfo() const {
  RecursiveLock lock(_lock);
  return _requireUserInfo;
}
void CorvidBackend::setRequireUserInfo(bool requireUserInfo) {
  RecursiveLock lock(_lock);
  _requireUserInfo = requireUserInfo;
}

bool CorvidBackend::batchEvents() const {
  RecursiveLock lock(_lock);
  return _batchEvents;
}
void CorvidBackend::setBatchEvents(bool batchEvents) {
  RecursiveLock lock(_lock);
  _batchEvents = batchEvents;
}

double CorvidBackend::samplingFactor() const {
  RecursiveLock lock(_lock);
  return _samplingFactor;
}
void CorvidBackend::setSamplingFactor(double samplingFactor) {
  RecursiveLock lock(_lock);
  _samplingFactor = samplingFactor;
}

std::optional<double> CorvidBackend::samplingThreshold() const {
  RecursiveLock lock(_lock);
  return _samplingThreshold;
}
void CorvidBackend::setSamplingThreshold(std::optional<double> samplingThreshold) {
  RecursiveLock lock(_lock);
  _samplingThreshold = samplingThreshold;
}

}  // namespace corvid
