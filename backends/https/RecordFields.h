// The fields of event records: what an event becomes before it is posted or held.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "backends/BackendIdentity.h"
#include "backends/https/ClientPolicy.h"
#include "base/TimeValue.h"
#include "base/Value.h"

namespace corvid {

// An event as a session hands it over. `payload` may be null.
struct Event {
  const Dictionary* payload;
  const TimeValue& timestamp;
  std::uint16_t method;
  std::uint16_t respCode;

  // The one that ends a session; its record sums up how the session was sampled.
  bool isSessionStop() const { return respCode == 1; }
};

// Of the backend, at the time of the event.
struct RecordContext {
  Platform& platform;
  const BackendIdentity& identity;
  const ClientPolicy& policy;
  const std::optional<double>& samplingThreshold;
  const std::optional<std::string>& combinedSessionID;
  std::uint16_t eventID;
  const SharedDictionary& userInfo;  // null where there is none
};

// The fields that differ from event to event besides the payload.
struct EventNumbers {
  std::uint16_t eventNumber;
  std::uint16_t method;
  std::uint16_t status;
  double clientTime;  // finite

  // Gives each field to `take(key, value)`, in the order of records.
  template <class Take>
  void each(Take take) const {
    take("_eventNumber", eventNumber);
    take("_method", method);
    take("_status", status);
    take("_clientTS", clientTime);
    take("eventTime", clientTime);
  }
};
EventNumbers numbersOf(const Event& event, const RecordContext& context);

// A copy of the payload, empty where there is none, with the summary at the end of a session.
Dictionary payloadOf(const Event& event, const RecordContext& context);

// The payload and what the backend adds to it; user info and filters are still to come.
Dictionary createEventDictfromPayload(Dictionary payload, const EventNumbers& numbers,
                                      const RecordContext& context);

// Adds the user info, whose values win, and applies the filters to all; `changed` hears which keys
// they changed.
void prepareEventForMessage(Dictionary& record, const Dictionary* userInfo,
                            const EventFilters& filters, KeysChanged& changed);

}  // namespace corvid
