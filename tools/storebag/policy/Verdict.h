// What a device does with a storebag.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backends/https/ClientPolicy.h"
#include "base/Value.h"
#include "protocol/Reason.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid::storebag {

// A backend of the session, as operators would see it there.
struct BackendVerdict {
  std::string name;
  std::string state;
  std::string reason;
  std::optional<std::size_t> entry{};  // the index in "clients"
  std::optional<std::string> postURL{};
  std::optional<std::string> realtimePostURL{};
  // These are of backends that post events.
  std::optional<std::int32_t> eventThreshold{};
  std::optional<double> samplingThreshold{};  // where the session was sampled
  std::optional<bool> batch{};
  void take(const ClientPolicy& policy, std::optional<double> threshold);

  bool operator==(const BackendVerdict&) const = default;
};

// What becomes of the event at one backend.
struct EventVerdict {
  std::string name;
  std::string outcome;  // underWay: it would be posted at once
  std::string reason;
  // Where it is posted, now or at a flush.
  std::optional<std::string> address{};
  // What would leave, without what depends on clocks, identifiers and earlier events; as it is kept
  // where nothing may leave yet.
  std::optional<Dictionary> record{};
  bool operator==(const EventVerdict&) const = default;
};

struct Verdict {
  std::optional<std::string> environment{};
  std::optional<Reason> reason{};  // why the session has no backends
  std::vector<BackendVerdict> backends{};
  std::optional<std::vector<EventVerdict>> event{};
};

// A client of that type on that device starts a session and sends the event, if there is one. The
// word of the daemon's own objects: backends are made, asked and fed as a session does it, on a
// DescribedDevice. The session is alone, in no chain. Not while there is another Platform.
Verdict explain(const Dictionary& storebag, std::int32_t clientType, const Facts& facts,
                const std::optional<SentEvent>& event = std::nullopt);

// As `explain --json` prints them; data and dates are left as they are.
Dictionary toDictionary(const Verdict& verdict);
Dictionary toDictionary(const BackendVerdict& backend);
Dictionary toDictionary(const EventVerdict& event);

}  // namespace corvid::storebag
