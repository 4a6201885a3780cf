// Event records: what an event becomes before it is posted or batched.
#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "backends/https/HTTPSPostBackend.h"
#include "config/DeviceInformation.h"
#include "config/Environment.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::size_t addedKeyCount = 16;

// The start of a session as records tell it: whole minutes.
std::int64_t startMinute(double startTimeStamp) {
  return static_cast<std::int64_t>(startTimeStamp) / 60 * 60;
}

// Client types whose internal sessions are known by number instead of by combined ID.
bool reportsNumericSessionID(std::int32_t clientType) {
  return clientType == 7 || clientType == 11 || clientType == 13;
}

void setIfPresent(Dictionary& record, std::string_view key,
                  const std::optional<std::string>& text) {
  if (text) record.set(std::string(key), *text);
}

Value numberOrMinusOne(const std::optional<double>& number) {
  return number ? Value(*number) : Value(-1);
}

}  // namespace

Dictionary HTTPSPostBackend::createEventDictfromPayload(const Dictionary* payload,
                                                        const TimeValue& timestamp,
                                                        std::uint16_t method,
                                                        std::uint16_t respCode) const {
  Platform& platform = Platform::current();
  const std::int64_t start = startMinute(identity().startTimeStamp);
  // Relative to the minute that the session is said to have started in.
  const double clientTime = finiteOrMinusOne(static_cast<double>(start) +
                                             (timestamp.asDouble() - identity().startTimeStamp));

  Dictionary record;
  // Room for the user info twice: a flush asks for it again.
  record.reserve((payload ? payload->size() : 0) + addedKeyCount +
                 (_userInfoDict ? 2 * _userInfoDict->size() : 0));
  if (payload != nullptr) record.addEntriesFrom(*payload);
  record.set("_startTS", start);
  record.set("_sender", clientTagForClientType(identity().compType));
  record.set("_clientVersion", identity().clientVersion);
  if (identity().isInternal && reportsNumericSessionID(identity().compType))
    record.set("_sessionID", identity().sessionID);
  else
    setIfPresent(record, "_sessionID", _combinedSessionIDString);
  record.set("_eventNumber", _eventID.load());
  record.set("_method", method);
  record.set("_status", respCode);
  record.set("_clientTS", clientTime);
  record.set("eventTime", clientTime);
  setIfPresent(record, "_productFamily", identity().productFamily);
  setIfPresent(record, "_productModel", identity().hardwareType);
  setIfPresent(record, "_osVersion", identity().productVersion);
  setIfPresent(record, "_build", identity().buildVersion);
  record.set("_internal", isInternalBuild() ? 1 : 0);
  record.set("_reportVers",
             fmt::format("{}.{}", identity().selfVersionMajor, identity().selfVersionMinor));
  record.set("_timezoneOffset", platform.locale().secondsFromGMT(platform.clock().now()));
  return record;
}

void HTTPSPostBackend::addStopEventSummary(Dictionary& payload) const {
  payload.set("Opt", static_cast<std::int32_t>(_dnuType));
  payload.set("SamplingThreshold", numberOrMinusOne(_samplingThreshold));
  payload.set("OverrideSampling", numberOrMinusOne(_overrideSampling));
  payload.set("Batch", _batchEvents ? 1 : 0);
}

void HTTPSPostBackend::prepareEventForMessage(Dictionary& record) const {
  if (_userInfoDict) record.addEntriesFrom(*_userInfoDict);
  _filters.apply(record);
}

}  // namespace corvid
