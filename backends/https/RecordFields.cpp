#include "backends/https/RecordFields.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "base/Describe.h"
#include "config/DeviceInformation.h"
#include "config/Environment.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::size_t addedKeyCount = 20;

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

void addStopEventSummary(Dictionary& record, const RecordContext& context) {
  record.set("Opt", static_cast<std::int32_t>(context.policy.dnuType));
  record.set("SamplingThreshold", numberOrMinusOne(context.samplingThreshold));
  record.set("OverrideSampling", numberOrMinusOne(context.policy.overrideSampling));
  record.set("Batch", context.policy.batchEvents ? 1 : 0);
}

}  // namespace

EventNumbers numbersOf(const Event& event, const RecordContext& context) {
  const double start = context.identity.startTimeStamp;
  // Relative to the minute that the session is said to have started in.
  return {.eventNumber = context.eventID,
          .method = event.method,
          .status = event.respCode,
          .clientTime = finiteOrMinusOne(static_cast<double>(startMinute(start)) +
                                         (event.timestamp.asDouble() - start))};
}

Dictionary payloadOf(const Event& event, const RecordContext& context) {
  Dictionary payload;
  if (event.payload == nullptr) return payload;
  payload.addEntriesFrom(*event.payload);
  if (event.isSessionStop()) addStopEventSummary(payload, context);
  return payload;
}

Dictionary createEventDictfromPayload(Dictionary payload, const EventNumbers& numbers,
                                      const RecordContext& context) {
  const BackendIdentity& identity = context.identity;
  Dictionary record = std::move(payload);
  // Room for the user info twice: a flush asks for it again.
  record.reserve(record.size() + addedKeyCount +
                 (context.userInfo ? 2 * context.userInfo->size() : 0));
  record.set("_startTS", startMinute(identity.startTimeStamp));
  record.set("_sender", clientTagForClientType(identity.compType));
  record.set("_clientVersion", identity.clientVersion);
  if (identity.isInternal && reportsNumericSessionID(identity.compType))
    record.set("_sessionID", identity.sessionID);
  else
    setIfPresent(record, "_sessionID", context.combinedSessionID);
  numbers.each([&](const char* key, const auto& number) { record.set(key, number); });
  setIfPresent(record, "_productFamily", identity.productFamily);
  setIfPresent(record, "_productModel", identity.hardwareType);
  setIfPresent(record, "_osVersion", identity.productVersion);
  setIfPresent(record, "_build", identity.buildVersion);
  record.set("_internal", isInternalBuild() ? 1 : 0);
  record.set("_reportVers",
             fmt::format("{}.{}", identity.selfVersionMajor, identity.selfVersionMinor));
  record.set("_timezoneOffset",
             context.platform.locale().secondsFromGMT(context.platform.clock().now()));
  return record;
}

void prepareEventForMessage(Dictionary& record, const Dictionary* userInfo,
                            const EventFilters& filters, KeysChanged& changed) {
  if (userInfo != nullptr) record.addEntriesFrom(*userInfo);
  filters.apply(record, &changed);
}

}  // namespace corvid
