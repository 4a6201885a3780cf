// What the storebag's client entry decides: addresses, consent, lists, filters, sampling, state.
#include <utility>

#include "backends/https/HTTPSPostBackend.h"
#include "backends/https/ListMatching.h"
#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "config/Identifiers.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

template <class T>
const T* pointerTo(const std::optional<T>& value) {
  return value ? &*value : nullptr;
}

std::optional<std::string> copyOf(const std::string* text) {
  return text ? std::optional(*text) : std::nullopt;
}

bool listsCountry(const Dictionary& item, const std::string& country) {
  const Array* countries = arrayAt(item, "country");
  if (countries == nullptr) return false;
  for (const Value& listed : *countries)
    if (const std::string* text = listed.string(); text != nullptr && *text == country) return true;
  return false;
}

// A threshold as log lines show it: in single precision, 0 where there is none.
double shownThreshold(const std::optional<double>& threshold) {
  return static_cast<double>(static_cast<float>(threshold.value_or(0)));
}

}  // namespace

BackendState HTTPSPostBackend::updateBackendState() {
  MutexLock lock(_lock);
  const std::string* clientName =
      _userInfoDict ? stringAt(*_userInfoDict, kCorvidUserInfoClientName) : nullptr;
  const std::string* serviceID =
      _userInfoDict ? stringAt(*_userInfoDict, kCorvidUserInfoServiceName) : nullptr;
  const Dictionary* client = firstMatchingClient(clientName, serviceID);
  if (client != nullptr) applyExpedite(*client);
  if (!identity().requireUserInfo) return stateWithoutUserInfo();
  if (!_userInfoDict) return BackendState::waiting;
  if (client == nullptr) return BackendState::disabled;

  setHierarchy(int32At(*client, "hierarchy"));
  const std::optional<std::string> country = Platform::current().locale().countryCode();
  if (!passesConsent(*client) || !passesLists(*client, country)) return BackendState::disabled;
  const Array* filters = arrayAt(*client, "filters");
  if (filters == nullptr) {
    logWarning("HTTPSPostBackend(updateBackendState): filters are required.");
    return BackendState::disabled;
  }
  createFiltersFromArray(*filters);
  updateSamplingThreshold(*client, country);
  const BackendState state = sampledState(*client);
  resetBackendStateWithClient(client);
  if (client->contains("custom_clientId"))
    _uuidCustom =
        getPersistentIdentifierForCustomClientIDSuffix(copyOf(clientName), copyOf(serviceID));
  logDebug(
      "HTTPSPostBackend(updateBackendState): {}: client found {}:{}, state={}, samplingFactor={:f}, hierarchy={}",
      _name, orNull(clientName), orNull(serviceID), static_cast<int>(state), _samplingFactor,
      hierarchy());
  updatePostLink(*client);
  return state;
}

const Dictionary* HTTPSPostBackend::firstMatchingClient(const std::string* clientName,
                                                        const std::string* serviceID) const {
  for (const Value& item : *arrayAt(_profile, "clients")) {
    const Dictionary* client = item.dictionary();
    if (client != nullptr && matchClientNameAndServiceID(*client, clientName, serviceID))
      return client;
  }
  return nullptr;
}

bool HTTPSPostBackend::matchClientNameAndServiceID(const Dictionary& client,
                                                   const std::string* clientName,
                                                   const std::string* serviceID) {
  return matchExactStringWithList(matchListFromText(stringAt(client, "client")), clientName,
                                  true) &&
         matchStringWithList(matchListFromText(stringAt(client, "service")), serviceID, true);
}

void HTTPSPostBackend::applyExpedite(const Dictionary& client) {
  const std::optional<std::int64_t> expedite = integerAt(client, "expedite");
  if (!expedite) return;
  _batchEvents = *expedite == 0;
  logDebug("HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent={}",
           static_cast<int>(_batchEvents));
}

// Without user info to match, the first entry with a batch address serves everybody.
BackendState HTTPSPostBackend::stateWithoutUserInfo() {
  const Dictionary* chosen = nullptr;
  for (const Value& item : *arrayAt(_profile, "clients")) {
    const Dictionary* client = item.dictionary();
    if (client == nullptr || !updatePostLink(*client)) continue;
    chosen = client;
    break;
  }
  resetBackendStateWithClient(chosen);
  return BackendState::sending;
}

bool HTTPSPostBackend::passesConsent(const Dictionary& client) {
  const std::int32_t overrideDNU = int32At(client, "override_dnu");
  if (overrideDNU == 1) {
    _dnuType = _dnuEnabled ? DNUType::overridable : DNUType::overridden;
    return true;
  }
  _dnuType = DNUType::respected;
  if (!_dnuEnabled)
    logDebug("HTTPSPostBackend(updateBackendState): reporting disabled by DNU: {}.", overrideDNU);
  return _dnuEnabled;
}

bool HTTPSPostBackend::passesLists(const Dictionary& client,
                                   const std::optional<std::string>& country) const {
  const Array* countries = arrayAt(client, "locale_whitelist");
  if (!matchStringWithList(matchListFromArray(countries), pointerTo(country), false)) {
    logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in country code list {}",
             orNull(country), described(countries));
    return false;
  }
  const Array* allowed = arrayAt(client, "device_whitelist");
  if (!matchStringWithList(matchListFromArray(allowed), pointerTo(identity().productFamily),
                           true)) {
    logDebug("HTTPSPostBackend(updateBackendState): ({}) isn't in device whitelist {}",
             orNull(identity().productFamily), described(allowed));
    return false;
  }
  const Array* denied = arrayAt(client, "device_blacklist");
  if (matchStringWithList(matchListFromArray(denied), pointerTo(identity().hardwareType), false)) {
    logDebug("HTTPSPostBackend(updateBackendState): ({}) is in device blacklist {}",
             orNull(identity().hardwareType), described(denied));
    return false;
  }
  return true;
}

void HTTPSPostBackend::createFiltersFromArray(const Array& filters) {
  if (!filters.empty()) _filters = EventFilters(filters);
}

void HTTPSPostBackend::updateSamplingThreshold(const Dictionary& client,
                                               const std::optional<std::string>& country) {
  _samplingThreshold = asNumber(client.find("sampling_threshold"));
  const Array* perCountry = arrayAt(client, "per_country_sampling_thresholds");
  if (perCountry == nullptr || !country) return;
  for (const Value& value : *perCountry) {
    const Dictionary* item = value.dictionary();
    if (item == nullptr || !listsCountry(*item, *country)) continue;
    const std::optional<double> threshold = asNumber(item->find("threshold"));
    logDebug(
        "HTTPSPostBackend(updateBackendState): sampling threshold for {} changed from {:.2f} to {:.2f}",
        *country, shownThreshold(_samplingThreshold), shownThreshold(threshold));
    _samplingThreshold = threshold;
    return;
  }
}

BackendState HTTPSPostBackend::sampledState(const Dictionary& client) {
  if (!_samplingThreshold) return BackendState::disabled;
  if (_samplingFactor <= *_samplingThreshold) return BackendState::sending;
  const std::optional<double> limit = asNumber(client.find("override_sampling"));
  if (!limit) return BackendState::held;
  _overrideSampling = limit;
  // Written so that a limit that is no number holds too.
  return _samplingFactor > *limit ? BackendState::disabled : BackendState::held;
}

void HTTPSPostBackend::resetBackendStateWithClient(const Dictionary* client) {
  _eventThreshold = client ? int32At(*client, "event_threshold") : 0;
  logDebug("resetBackendStateWithClient: event_threshold set to {}", _eventThreshold);
  _extrasOnInternal = client ? int32At(*client, "extras_on_internal") : 0;
  logDebug("setBackendStateWithClient: extras on internal is set to {}", _extrasOnInternal);
}

bool HTTPSPostBackend::updatePostLink(const Dictionary& client) {
  bool supplied = false;
  if (!_useDefaultPostURL || !_postURL) {
    _useDefaultPostURL = false;
    if (const std::string* url = stringAt(client, "post_url")) {
      _postURL = *url;
      logDebug("HTTPSPostBackend(updatePostLink): Storebag '{}' for postURL", *url);
      supplied = true;
    }
  }
  if (!_useDefaultRealtimePostURL || !_realtimePostURL) {
    _useDefaultRealtimePostURL = false;
    if (const std::string* url = stringAt(client, "realtime_post_url")) {
      _realtimePostURL = *url;
      logDebug("HTTPSPostBackend(updatePostLink): Storebag '{}' for realtimePostURL", *url);
    } else {
      _realtimePostURL = _postURL;
      logDebug("HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '{}'",
               orNull(_postURL));
    }
  }
  return supplied;
}

}  // namespace corvid
