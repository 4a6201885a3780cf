// Storebags for tests of lint, changed value by value.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// A copy of `value` with another one at a path such as "release.httpPost.clients[0].client", or
// without it. What the path leads through must be there; only its last key may be new.
inline Value with(const Value& value, std::string_view path, const std::optional<Value>& changed) {
  if (path.empty()) return *changed;
  if (path.front() == '.') path.remove_prefix(1);
  if (path.front() == '[') {
    Array items = *value.array();
    const std::size_t index = std::strtoul(path.data() + 1, nullptr, 10);
    const std::string_view rest = path.substr(path.find(']') + 1);
    if (rest.empty() && !changed)
      items.erase(items.begin() + static_cast<std::ptrdiff_t>(index));
    else
      items.at(index) = with(items.at(index), rest, changed);
    return items;
  }
  Dictionary content = *value.dictionary();
  const std::string key(path.substr(0, path.find_first_of(".[")));
  const std::string_view rest = path.substr(key.size());
  if (rest.empty() && !changed)
    content.erase(key);
  else
    content.set(key, rest.empty() ? *changed : with(*content.find(key), rest, changed));
  return content;
}

// One with every key that a storebag may have, in which lint finds nothing.
inline Dictionary soundStorebag() {
  const Array filters{
      Dictionary{{"key", "secret"}, {"action", "remove"}},
      Dictionary{{"key", "account"}, {"action", "keep"}, {"method", 3}, {"status", 1}},
      Dictionary{{"key", "account"}, {"action", "sha256"}, {"method", 3}},
      Dictionary{{"key", "Path"}, {"action", "remove"}, {"status", 2}}};
  const Dictionary player{{"client", "Player,Recorder"},
                          {"service", "music,radio"},
                          {"expedite", 0},
                          {"post_url", "https://collector.example/v1/batch"},
                          {"realtime_post_url", "https://collector.example:8443/v1/now?a=b"},
                          {"hierarchy", 1},
                          {"override_dnu", 1},
                          {"locale_whitelist", Array{"DE", "FR", "419"}},
                          {"device_whitelist", Array{"Phone"}},
                          {"device_blacklist", Array{"Phone1,"}},
                          {"filters", filters},
                          {"sampling_threshold", 0.5},
                          {"per_country_sampling_thresholds",
                           Array{Dictionary{{"country", Array{"DE"}}, {"threshold", 0.25}},
                                 Dictionary{{"country", Array{"FR", "419"}}, {"threshold", 1}}}},
                          {"override_sampling", 0.75},
                          {"event_threshold", 49},
                          {"extras_on_internal", 1},
                          {"custom_clientId", true}};
  const Dictionary recorder{{"client", "Recorder"},
                            {"expedite", 1},
                            {"post_url", "HTTPS://collector.example/v1/batch"},
                            {"locale_whitelist", Array{"de"}},
                            {"filters", Array{}},
                            {"sampling_threshold", -0.5},
                            {"per_country_sampling_thresholds",
                             Array{Dictionary{{"country", Array{"DE"}}, {"threshold", 1.0}}}}};
  const Dictionary others{{"post_url", "https://[2001:db8::1]/v1/batch"},
                          {"locale_whitelist", Array{"DE"}},
                          {"filters", Array{}},
                          {"sampling_threshold", 1},
                          {"event_threshold", 9.0}};
  const Dictionary second{{"display_url", "shown to people"},
                          {"clients", Array{Dictionary{{"service", "radio"},
                                                       {"post_url", "https://second.example/batch"},
                                                       {"locale_whitelist", Array{"US"}},
                                                       {"filters", Array{}},
                                                       {"sampling_threshold", 1},
                                                       {"event_threshold", 4}}}}};
  const Dictionary release{
      {"httpPost", Dictionary{{"display_url", "https://collector.example/about"},
                              {"clients", Array{player, recorder, others}}}},
      {"httpPost2", second},
      {"dashboard", Dictionary{{"ip", "192.0.2.7"},
                               {"port", 4999},
                               {"reliable", 500},
                               {"post_url", "https://logs.example/upload"},
                               {"display_url", "the dashboard"}}},
      {"uploadServer",
       Dictionary{{"post_url", "https://files.example/upload"}, {"display_url", "files"}}},
      {"metrix", Dictionary{{"active", true}}},
      {"wattbook", Dictionary()}};
  const Dictionary small{{"metrix", Dictionary()}};
  return {{"version", "2026.11-1"}, {"refresh_cycle", 3600},     {"serial", 7},
          {"development", small},   {"halcyon_internal", small}, {"release", release}};
}

}  // namespace corvid
