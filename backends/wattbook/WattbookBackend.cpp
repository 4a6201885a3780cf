#include "backends/wattbook/WattbookBackend.h"

#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::uint32_t mediaServerSubsystem = 28;
constexpr std::string_view eventName = "Cobaltd-CVD";

}  // namespace

std::shared_ptr<WattbookBackend> WattbookBackend::initWithName(const std::string& name,
                                                               const Dictionary* profile,
                                                               const SharedIdentity& identity) {
  return std::make_shared<WattbookBackend>(Token{}, name, profile, identity);
}

WattbookBackend::WattbookBackend(Token, const std::string& name, const Dictionary* profile,
                                 const SharedIdentity& identity)
    : CorvidBackend(name, profile ? *profile : Dictionary(), identity) {}

std::optional<std::string> WattbookBackend::sendMessage(const Dictionary* payload, const TimeValue*,
                                                        std::uint16_t method,
                                                        std::uint16_t respCode, EventID eventID) {
  if (method == 0) return std::nullopt;
  if (payload == nullptr || payload->empty()) return std::nullopt;
  Dictionary record = *payload;
  record.set("method", std::int64_t{method});
  record.set("respCode", std::int64_t{respCode});
  record.set("event", static_cast<std::int64_t>(eventID));
  Platform::current().powerLog().logRegisteredEvent(mediaServerSubsystem, eventName, record);
  return std::nullopt;
}

}  // namespace corvid
