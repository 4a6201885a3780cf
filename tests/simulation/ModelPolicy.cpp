#include "tests/simulation/ModelPolicy.h"

#include <algorithm>
#include <cctype>

#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "protocol/Keys.h"

namespace corvid::simulation {

namespace {

using Texts = std::optional<std::vector<std::string>>;

// Of ASCII, which is all that names are made of here.
std::string lowered(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

Texts partsAt(const Dictionary& entry, std::string_view key) {
  const auto text = textAt(entry, key);
  if (!text) return std::nullopt;
  std::vector<std::string> parts(1);
  for (const char c : *text) {
    if (c == ',')
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

Texts textsAt(const Dictionary& entry, std::string_view key) {
  const Array* const array = arrayAt(entry, key);
  if (!array) return std::nullopt;
  std::vector<std::string> texts;
  for (const Value& value : *array)
    if (const auto text = asText(&value)) texts.push_back(*text);
  return texts;
}

// Whether one of the list is the text, or a part of it; `otherwise` where there is no list, and its
// opposite where there is a list and no text.
bool matches(const Texts& list, const std::optional<std::string>& text, bool otherwise,
             bool asPart) {
  if (!list || list->empty()) return otherwise;
  if (!text) return !otherwise;
  return std::ranges::any_of(*list, [&](const std::string& item) {
    if (item.empty()) return false;
    return asPart ? lowered(*text).find(lowered(item)) != std::string::npos
                  : lowered(*text) == lowered(item);
  });
}

std::optional<std::string> infoAt(const std::optional<Dictionary>& info, std::string_view key) {
  return info ? textAt(*info, key) : std::nullopt;
}

bool updateAddresses(Policy& policy, const Dictionary& entry, const Facts& facts) {
  bool supplied = false;
  if (!facts.device.batchAddress) {
    if (auto url = textAt(entry, "post_url")) {
      policy.postURL = std::move(url);
      supplied = true;
    }
  }
  if (!facts.device.realtimeAddress) {
    auto url = textAt(entry, "realtime_post_url");
    policy.realtimePostURL = url ? std::move(url) : policy.postURL;
  }
  return supplied;
}

void reset(Policy& policy, const Dictionary* entry) {
  policy.eventThreshold = entry ? int32At(*entry, "event_threshold") : 0;
  policy.extrasOnInternal = entry ? int32At(*entry, "extras_on_internal") : 0;
}

void takeFilters(Policy& policy, const Array& array) {
  if (array.empty()) return;
  policy.filters.clear();
  for (const Value& value : array) {
    const Dictionary& item = *value.dictionary();
    Filter filter{.key = textAt(item, "key").value_or("")};
    if (item.contains("method")) filter.method = int32At(item, "method");
    if (item.contains("status")) filter.status = int32At(item, "status");
    const std::string action = textAt(item, "action").value_or("");
    if (action == "remove") filter.action = Filter::Action::remove;
    if (action == "sha256") filter.action = Filter::Action::digest;
    policy.filters.push_back(std::move(filter));
  }
}

void takeThreshold(Policy& policy, const Dictionary& entry, const Facts& facts) {
  policy.threshold = asNumber(entry.find("sampling_threshold"));
  const Array* const countries = arrayAt(entry, "per_country_sampling_thresholds");
  if (!countries || !facts.country) return;
  for (const Value& value : *countries) {
    const Dictionary& item = *value.dictionary();
    const Texts codes = textsAt(item, "country");
    if (!codes || std::ranges::find(*codes, *facts.country) == codes->end()) continue;
    policy.threshold = asNumber(item.find("threshold"));
    return;
  }
}

void become(Policy& policy, State state, const char* reason) {
  policy.state = state;
  policy.reason = reason;
}

void sample(Policy& policy, const PolicyMaker& maker, const Dictionary& entry) {
  if (!policy.threshold) return become(policy, State::disabled, "noThreshold");
  if (maker.draw <= *policy.threshold) return become(policy, State::sending, "reporting");
  const auto second = asNumber(entry.find("override_sampling"));
  if (second) policy.overrideSampling = second;
  const bool isHeld = !second || maker.draw <= *second;
  become(policy, isHeld ? State::held : State::disabled, "sampledOut");
}

}  // namespace

const char* wordOf(State state) {
  switch (state) {
    case State::waiting: return "waiting";
    case State::disabled: return "disabled";
    case State::sending: return "sending";
    case State::held: return "held";
  }
  return "";
}

void decide(Policy& policy, const PolicyMaker& maker, const std::optional<Dictionary>& userInfo,
            const Facts& facts) {
  const auto client = infoAt(userInfo, kCorvidUserInfoClientName);
  const auto service = infoAt(userInfo, kCorvidUserInfoServiceName);
  const Array& entries = *arrayAt(maker.profile, "clients");
  const Dictionary* entry = nullptr;
  for (const Value& value : entries) {
    const Dictionary& candidate = *value.dictionary();
    if (!matches(partsAt(candidate, "client"), client, true, false)) continue;
    if (!matches(partsAt(candidate, "service"), service, true, true)) continue;
    entry = &candidate;
    break;
  }
  if (entry && entry->contains("expedite")) policy.batches = int32At(*entry, "expedite") == 0;

  if (!maker.requiresUserInfo) {
    const Dictionary* supplier = nullptr;
    for (const Value& value : entries)
      if (updateAddresses(policy, *value.dictionary(), facts)) {
        supplier = value.dictionary();
        break;
      }
    reset(policy, supplier);
    return become(policy, State::sending, policy.hasAddress() ? "reporting" : "noAddress");
  }
  if (!userInfo) return become(policy, State::waiting, "waitingForUserInfo");
  if (!entry) return become(policy, State::disabled, "noEntryMatches");
  policy.hierarchy = int32At(*entry, "hierarchy");
  const bool overrides = int32At(*entry, "override_dnu") == 1;
  policy.dnuType = !overrides ? 0 : maker.consents ? 2 : 1;
  if (!overrides && !maker.consents) return become(policy, State::disabled, "noConsent");
  if (!matches(textsAt(*entry, "locale_whitelist"), facts.country, false, true))
    return become(policy, State::disabled, "countryNotListed");
  if (!matches(textsAt(*entry, "device_whitelist"), facts.device.productFamily, true, true))
    return become(policy, State::disabled, "deviceNotListed");
  if (matches(textsAt(*entry, "device_blacklist"), facts.device.hardwareType, false, true))
    return become(policy, State::disabled, "deviceExcluded");
  const Array* const filters = arrayAt(*entry, "filters");
  if (!filters) return become(policy, State::disabled, "noFilters");
  takeFilters(policy, *filters);
  takeThreshold(policy, *entry, facts);
  sample(policy, maker, *entry);
  reset(policy, entry);
  if (entry->contains("custom_clientId")) {
    policy.hasCustomID = true;
    policy.customClient = client.value_or("");
    policy.customService = service.value_or("");
  }
  updateAddresses(policy, *entry, facts);
  if (policy.state == State::sending && !policy.hasAddress()) policy.reason = "noAddress";
}

void applyFilters(const std::vector<Filter>& filters, Dictionary& record) {
  const std::int32_t method = int32At(record, "_method");
  const std::int32_t status = int32At(record, "_status");
  record.transformEntries([&](const std::string& key, Value& value) {
    const auto found = std::ranges::find_if(filters, [&](const Filter& filter) {
      return !filter.key.empty() && lowered(filter.key) == lowered(key) &&
             (filter.method < 0 || filter.method == method) &&
             (filter.status < 0 || filter.status == status);
    });
    if (found == filters.end()) return true;
    if (found->action == Filter::Action::remove) return false;
    if (found->action == Filter::Action::digest) {
      std::string digest;
      for (const std::uint8_t byte : sha256(*value.string())) {
        constexpr std::string_view digits = "0123456789abcdef";
        digest += digits[byte >> 4];
        digest += digits[byte & 15];
      }
      value = std::move(digest);
    }
    return true;
  });
}

}  // namespace corvid::simulation
