#include "backends/wattbook/WattbookBackend.h"

#include <string_view>

#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::uint32_t mediaServerSubsystem = 28;
constexpr std::string_view eventName = "Cobaltd-CVD";

}  // namespace

void PowerRecordWriter::record(const Dictionary* payload, std::uint16_t method,
                               std::uint16_t respCode, EventID eventID) const {
  if (method == 0 || payload == nullptr || payload->empty()) return;
  Dictionary record = *payload;
  record.set("method", std::int64_t{method});
  record.set("respCode", std::int64_t{respCode});
  record.set("event", static_cast<std::int64_t>(eventID));
  _powerLog.logRegisteredEvent(mediaServerSubsystem, eventName, record);
}

WattbookBackend::WattbookBackend(const std::string& name, const Dictionary* profile,
                                 const SharedIdentity& identity)
    : CorvidBackend(name, profile ? *profile : Dictionary(), identity),
      _records(_platform.powerLog()) {}

}  // namespace corvid
