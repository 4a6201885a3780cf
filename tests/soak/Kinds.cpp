#include "tests/soak/Kinds.h"

#include <algorithm>
#include <numeric>

namespace corvid::soak {

namespace {

// Fails before anybody is asked: a label of a host's name has 63 characters at most.
std::string unresolvableURL() { return "https://" + std::string(70, 'n') + ".invalid/events"; }

Array everyCountry() {
  Array countries;  // each code holds one of these
  for (char letter = 'A'; letter <= 'Z'; ++letter) countries.emplace_back(std::string(1, letter));
  return countries;
}

const std::vector<Kind>& table() {
  static const std::vector<Kind> all{
      {"realtime", 5, "lumen", "live", false, false, false, 25, {}},
      {"batch", 6, "tessel", "bulk", false, false, true, 30, {}},
      // Its messages are written down on this device, with the user's consent.
      {"logged", 8, "orrery", "bulk", true, true, true, 10, {}},
      {"full", 9, "cadence", "bulk", true, true, true, 8, {"dropped.batchFull"}},
      {"abroad", 10, "quill", "", true, true, true, 5, {"dropped.countryNotListed"}},
      {"sampled",
       12,
       "ledger",
       "",
       true,
       true,
       true,
       5,
       {"dropped.notFlushed", "dropped.sampledOut"}},
      {"nameless", 16, "folio", "", false, false, true, 6, {"failed.resolve"}},
      {"waiting",
       17,
       "reel",
       "",
       true,
       false,
       true,
       6,
       // Before an entry is found for it, its batches have the threshold that holds by default.
       {"dropped.notFlushed", "dropped.waitingForUserInfo", "dropped.batchFull"}},
      {"unknown", 3, "", "", false, false, true, 5, {"dropped.unknownClientType"}},
      {"mute", 0, "", "", false, false, true, 2, {"dropped.noSessionInfo"}},  // never says who it
                                                                              // is
  };
  return all;
}

}  // namespace

std::span<const Kind> kinds() { return table(); }

const Kind* kindNamed(std::string_view name) {
  const auto found = std::ranges::find(table(), name, &Kind::name);
  return found == table().end() ? nullptr : &*found;
}

const Kind& drawKind(std::uint64_t draw) {
  const int all = std::accumulate(table().begin(), table().end(), 0,
                                  [](int sum, const Kind& kind) { return sum + kind.weight; });
  auto left = static_cast<int>(draw % static_cast<std::uint64_t>(all));
  for (const Kind& kind : table())
    if ((left -= kind.weight) < 0) return kind;
  return table().back();
}

Dictionary storebagOf(const Kind& kind, const std::map<std::string, std::string>& urls) {
  Dictionary entry{{"locale_whitelist", everyCountry()},
                   {"filters", Array{}},
                   {"sampling_threshold", 1.0},
                   {"event_threshold", 200},
                   {"expedite", kind.batches ? 0 : 1}};
  const auto url = urls.find(std::string(kind.server.empty() ? "bulk" : kind.server));
  entry.set("post_url", url == urls.end() ? "" : url->second);
  if (kind.name != "logged") entry.set("override_dnu", 1);
  if (kind.name == "full") entry.set("event_threshold", 5);
  if (kind.name == "abroad") entry.set("locale_whitelist", Array{});
  if (kind.name == "sampled") entry.set("sampling_threshold", -1.0);
  if (kind.name == "nameless") entry.set("post_url", unresolvableURL());
  return {{"version", "1"},
          {"refresh_cycle", 3600},
          {"release", Dictionary{{"httpPost", Dictionary{{"clients", Array{entry}}}}}}};
}

}  // namespace corvid::soak
