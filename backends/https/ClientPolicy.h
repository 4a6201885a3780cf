// What a storebag says of one client: whether its records may leave the device, where to, and in
// which form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/CorvidBackend.h"
#include "backends/https/EventFilters.h"
#include "backends/https/ListMatching.h"
#include "base/Value.h"
#include "protocol/Reason.h"

namespace corvid {

// Consent as the entry and the user settle it; any but respected sends the override identifier.
enum class DNUType : std::int32_t { respected = 0, overridden = 1, overridable = 2 };

// What a decision is made from besides the storebag. An absent text is an answer that the device
// does not have.
struct PolicyFacts {
  bool requireUserInfo = false;
  const Dictionary* userInfo = nullptr;  // borrowed; null where there is none
  bool consent = false;
  std::optional<std::string> country{};
  std::optional<std::string> productFamily{};
  std::optional<std::string> hardwareType{};
  double samplingFactor = 0;

  // By the user info; null where it does not name one.
  const std::string* clientName() const;
  const std::string* serviceID() const;
};

// What holds for a client, from one decision to the next.
struct ClientPolicy {
  std::optional<std::string> postURL{};
  std::optional<std::string> realtimePostURL{};
  // The address comes from the preferences; the storebag does not replace it.
  bool useDefaultPostURL = false;
  bool useDefaultRealtimePostURL = false;
  bool batchEvents = false;
  DNUType dnuType = DNUType::respected;
  std::shared_ptr<const EventFilters> filters = std::make_shared<const EventFilters>();
  std::optional<double> overrideSampling{};
  std::int32_t eventThreshold = 49;   // past so many events of a method the batch is flushed
  std::int32_t extrasOnInternal = 0;  // other than 0: internal builds send the device identifier
  std::optional<std::string> uuidCustom{};
};

// What one entry did to the addresses, and what they were then.
struct AddressUpdate {
  enum class Realtime { unchanged, supplied, followsPostURL };
  bool suppliedPostURL = false;
  Realtime realtime = Realtime::unchanged;
  std::optional<std::string> postURL{};
  std::optional<std::string> realtimePostURL{};
};

// A state, and everything that led to it. `list` points into the profile.
struct PolicyDecision {
  BackendState state = BackendState::disabled;
  Reason reason = Reason::noEntryMatches;
  ClientPolicy policy{};  // what holds from now on
  // The index in "clients" of the entry that decided: the first that matches or, where no user info
  // is required, the first with a batch address.
  std::optional<std::size_t> entry{};
  std::optional<bool> expedited{};  // the new `batchEvents`, where an entry set it
  // What a rule that refused compared the facts with.
  std::int32_t overrideDNU = 0;
  const Array* list = nullptr;
  // Of the entry, where it was judged at all.
  std::optional<std::int32_t> hierarchy{};
  // All rules before the sampling were passed; the threshold is then this one.
  bool wasSampled = false;
  std::optional<double> samplingThreshold{};
  // The threshold that one for the country replaced.
  std::optional<std::optional<double>> replacedThreshold{};
  bool wantsCustomIdentifier = false;
  // Of each entry that was asked for addresses.
  std::vector<AddressUpdate> addresses{};
};

// Goes through the rules of `profile` in order, up to the first that refuses; only the first entry
// that matches counts. What a rule that is not reached would set stays as it was `before`. Pure:
// nothing is asked, logged or kept.
PolicyDecision decide(const Dictionary& profile, const PolicyFacts& facts, ClientPolicy before);

// What a backend that sends by this policy says: that it reports, or that there is no address.
Reason sendingReason(const ClientPolicy& policy);
// Why the backend stands as it does after the decision.
Reason standingReason(const PolicyDecision& decision);

// The log lines of a decision, in the order of the rules: those up to the settings of the entry,
// and those of the entry that was found, which come after a custom identifier was made.
void logRules(const PolicyDecision& decision, const PolicyFacts& facts);
void logMatch(const PolicyDecision& decision, const PolicyFacts& facts, const std::string& backend);

// Whom an entry is for. Views of the entry, which must outlive it.
class Addressees {
 public:
  explicit Addressees(const Dictionary& client);
  // Null where the user info does not name one.
  bool matchClientNameAndServiceID(const std::string* clientName,
                                   const std::string* serviceID) const;

 private:
  const MatchList _clients;
  const MatchList _services;
};

}  // namespace corvid
