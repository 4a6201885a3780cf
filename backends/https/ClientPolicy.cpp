#include "backends/https/ClientPolicy.h"

#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "protocol/Keys.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

bool listsCountry(const Dictionary& item, const std::string& country) {
  const Array* countries = arrayAt(item, "country");
  if (countries == nullptr) return false;
  for (const Value& listed : *countries)
    if (const std::string* text = listed.string(); text != nullptr && *text == country) return true;
  return false;
}

// One way through the rules.
class Decider {
 public:
  Decider(const Array& entries, const PolicyFacts& facts, ClientPolicy before)
      : _entries(entries), _facts(facts) {
    _decision.policy = std::move(before);
  }

  PolicyDecision run() && {
    const Dictionary* client = firstMatchingClient();
    if (client != nullptr) expedite(*client);
    if (!_facts.requireUserInfo)
      takeFirstAddress();
    else if (_facts.userInfo == nullptr)
      conclude(BackendState::waiting, Reason::waitingForUserInfo);
    else if (client == nullptr)
      conclude(BackendState::disabled, Reason::noEntryMatches);
    else
      judge(*client);
    return std::move(_decision);
  }

 private:
  void conclude(BackendState state, Reason reason) {
    _decision.state = state;
    _decision.reason = reason;
  }
  bool refuse(Reason reason, const Array* list = nullptr) {
    conclude(BackendState::disabled, reason);
    _decision.list = list;
    return false;
  }

  const Dictionary* firstMatchingClient() {
    for (std::size_t index = 0; index < _entries.size(); ++index) {
      const Dictionary* client = _entries[index].dictionary();
      if (client == nullptr ||
          !Addressees(*client).matchClientNameAndServiceID(_facts.clientName(), _facts.serviceID()))
        continue;
      if (_facts.requireUserInfo && _facts.userInfo != nullptr) _decision.entry = index;
      return client;
    }
    return nullptr;
  }

  void expedite(const Dictionary& client) {
    const std::optional<std::int64_t> value = integerAt(client, "expedite");
    if (!value) return;
    _decision.expedited = _decision.policy.batchEvents = *value == 0;
  }

  // Without user info to match, the first entry with a batch address serves everybody.
  void takeFirstAddress() {
    conclude(BackendState::sending, Reason::reporting);
    const Dictionary* chosen = nullptr;
    for (std::size_t index = 0; index < _entries.size() && chosen == nullptr; ++index) {
      const Dictionary* client = _entries[index].dictionary();
      if (client == nullptr || !updatePostLink(*client)) continue;
      chosen = client;
      _decision.entry = index;
    }
    resetBackendStateWithClient(chosen);
  }

  void judge(const Dictionary& client) {
    _decision.hierarchy = int32At(client, "hierarchy");
    if (!passesConsent(client) || !passesLists(client)) return;
    const Array* filters = arrayAt(client, "filters");
    if (filters == nullptr) {
      refuse(Reason::noFilters);
      return;
    }
    createFiltersFromArray(*filters);
    updateSamplingThreshold(client);
    sample(client);
    resetBackendStateWithClient(&client);
    _decision.wantsCustomIdentifier = client.contains("custom_clientId");
    updatePostLink(client);
  }

  bool passesConsent(const Dictionary& client) {
    _decision.overrideDNU = int32At(client, "override_dnu");
    if (_decision.overrideDNU == 1) {
      _decision.policy.dnuType = _facts.consent ? DNUType::overridable : DNUType::overridden;
      return true;
    }
    _decision.policy.dnuType = DNUType::respected;
    return _facts.consent || refuse(Reason::noConsent);
  }

  bool passesLists(const Dictionary& client) {
    const auto listed = [&](const char* key, const std::optional<std::string>& fact, bool isOpen) {
      _list = arrayAt(client, key);
      return matchStringWithList(matchListFromArray(_list), pointerTo(fact), isOpen);
    };
    if (!listed("locale_whitelist", _facts.country, false))
      return refuse(Reason::countryNotListed, _list);
    if (!listed("device_whitelist", _facts.productFamily, true))
      return refuse(Reason::deviceNotListed, _list);
    if (listed("device_blacklist", _facts.hardwareType, false))
      return refuse(Reason::deviceExcluded, _list);
    return true;
  }

  void createFiltersFromArray(const Array& filters) {
    if (!filters.empty()) _decision.policy.filters = std::make_shared<const EventFilters>(filters);
  }

  void updateSamplingThreshold(const Dictionary& client) {
    std::optional<double>& threshold = _decision.samplingThreshold;
    threshold = asNumber(client.find("sampling_threshold"));
    const Array* perCountry = arrayAt(client, "per_country_sampling_thresholds");
    if (perCountry == nullptr || !_facts.country) return;
    for (const Value& value : *perCountry) {
      const Dictionary* item = value.dictionary();
      if (item == nullptr || !listsCountry(*item, *_facts.country)) continue;
      _decision.replacedThreshold = std::exchange(threshold, asNumber(item->find("threshold")));
      return;
    }
  }

  void sample(const Dictionary& client) {
    _decision.wasSampled = true;
    const std::optional<double>& threshold = _decision.samplingThreshold;
    if (!threshold) return conclude(BackendState::disabled, Reason::noThreshold);
    if (_facts.samplingFactor <= *threshold)
      return conclude(BackendState::sending, Reason::reporting);
    const std::optional<double> limit = asNumber(client.find("override_sampling"));
    if (limit) _decision.policy.overrideSampling = limit;
    // Written so that a limit that is no number holds too.
    const bool isBeyond = limit && _facts.samplingFactor > *limit;
    conclude(isBeyond ? BackendState::disabled : BackendState::held, Reason::sampledOut);
  }

  void resetBackendStateWithClient(const Dictionary* client) {
    _decision.policy.eventThreshold = client ? int32At(*client, "event_threshold") : 0;
    _decision.policy.extrasOnInternal = client ? int32At(*client, "extras_on_internal") : 0;
  }

  // Whether the entry supplied the batch address.
  bool updatePostLink(const Dictionary& client) {
    ClientPolicy& policy = _decision.policy;
    AddressUpdate update;
    if (!policy.useDefaultPostURL || !policy.postURL) {
      policy.useDefaultPostURL = false;
      if (const std::string* url = stringAt(client, "post_url")) {
        policy.postURL = *url;
        update.suppliedPostURL = true;
      }
    }
    if (!policy.useDefaultRealtimePostURL || !policy.realtimePostURL) {
      policy.useDefaultRealtimePostURL = false;
      const std::string* url = stringAt(client, "realtime_post_url");
      policy.realtimePostURL = url ? std::optional(*url) : policy.postURL;
      update.realtime =
          url ? AddressUpdate::Realtime::supplied : AddressUpdate::Realtime::followsPostURL;
    }
    update.postURL = policy.postURL;
    update.realtimePostURL = policy.realtimePostURL;
    _decision.addresses.push_back(std::move(update));
    return _decision.addresses.back().suppliedPostURL;
  }

  const Array& _entries;
  const PolicyFacts& _facts;
  PolicyDecision _decision;
  const Array* _list = nullptr;  // looked at last
};

// A threshold as log lines show it: in single precision, 0 where there is none.
double shownThreshold(const std::optional<double>& threshold) {
  return static_cast<double>(static_cast<float>(threshold.value_or(0)));
}

void logAddresses(const PolicyDecision& decision) {
  for (const AddressUpdate& update : decision.addresses) {
    if (update.suppliedPostURL)
      logDebug("HTTPSPostBackend(updatePostLink): Storebag '{}' for postURL", *update.postURL);
    if (update.realtime == AddressUpdate::Realtime::supplied)
      logDebug("HTTPSPostBackend(updatePostLink): Storebag '{}' for realtimePostURL",
               *update.realtimePostURL);
    if (update.realtime == AddressUpdate::Realtime::followsPostURL)
      logDebug("HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '{}'",
               orNull(update.postURL));
  }
}

void logRefusal(const PolicyDecision& decision, const PolicyFacts& facts) {
  const auto why = loggingReason(decision.reason);
  switch (decision.reason) {
    case Reason::noConsent:
      logDebug("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: {}.",
               decision.overrideDNU);
      break;
    case Reason::countryNotListed:
      logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in country code list {}",
               orNull(facts.country), described(decision.list));
      break;
    case Reason::deviceNotListed:
      logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in device whitelist {}",
               orNull(facts.productFamily), described(decision.list));
      break;
    case Reason::deviceExcluded:
      logDebug("HTTPSPostBackend(updateBackendState): ({}) is in device blacklist {}",
               orNull(facts.hardwareType), described(decision.list));
      break;
    case Reason::noFilters:
      logWarning("HTTPSPostBackend(updateBackendState): filters are required.");
      break;
    default: break;
  }
}

}  // namespace

const std::string* PolicyFacts::clientName() const {
  return userInfo ? stringAt(*userInfo, kCorvidUserInfoClientName) : nullptr;
}

const std::string* PolicyFacts::serviceID() const {
  return userInfo ? stringAt(*userInfo, kCorvidUserInfoServiceName) : nullptr;
}

Addressees::Addressees(const Dictionary& client)
    : _clients(matchListFromText(stringAt(client, "client"))),
      _services(matchListFromText(stringAt(client, "service"))) {}

bool Addressees::matchClientNameAndServiceID(const std::string* clientName,
                                             const std::string* serviceID) const {
  return matchExactStringWithList(_clients, clientName, true) &&
         matchStringWithList(_services, serviceID, true);
}

PolicyDecision decide(const Dictionary& profile, const PolicyFacts& facts, ClientPolicy before) {
  const Array* entries = arrayAt(profile, "clients");
  return Decider(entries ? *entries : Array(), facts, std::move(before)).run();
}

Reason sendingReason(const ClientPolicy& policy) {
  return policy.postURL || policy.realtimePostURL ? Reason::reporting : Reason::noAddress;
}

Reason standingReason(const PolicyDecision& decision) {
  return decision.state == BackendState::sending ? sendingReason(decision.policy) : decision.reason;
}

void logRules(const PolicyDecision& decision, const PolicyFacts& facts) {
  if (decision.expedited)
    logDebug("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={}",
             static_cast<int>(*decision.expedited));
  if (!facts.requireUserInfo) logAddresses(decision);
  logRefusal(decision, facts);
  if (decision.replacedThreshold)
    logDebug(
        "HTTPSPostBackend(updateBackendState): sampling threshold for {} changed from {:.2f} to {:.2f}",
        orNull(facts.country), shownThreshold(*decision.replacedThreshold),
        shownThreshold(decision.samplingThreshold));
  if (facts.requireUserInfo && !decision.wasSampled) return;
  logDebug("resetBackendStateWithClient: event_threshold set to {}",
           decision.policy.eventThreshold);
  logDebug("setBackendStateWithClient: extras on internal is set to {}",
           decision.policy.extrasOnInternal);
}

void logMatch(const PolicyDecision& decision, const PolicyFacts& facts,
              const std::string& backend) {
  if (!decision.wasSampled) return;
  {
    const auto why = loggingReason(decision.reason);
    logDebug(
        "HTTPSPostBackend(updateBackendState): {}: client found {}:{}, state={}, samplingFactor={:f}, hierarchy={}",
        backend, orNull(facts.clientName()), orNull(facts.serviceID()),
        static_cast<int>(decision.state), facts.samplingFactor, decision.hierarchy.value_or(0));
  }
  logAddresses(decision);
}

}  // namespace corvid
