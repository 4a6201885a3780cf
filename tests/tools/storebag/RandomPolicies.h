// Storebags, facts and events as a number generator has them come.
#pragma once

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>

#include "base/Value.h"
#include "config/Environment.h"
#include "protocol/Keys.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid {

// The same for the same seed. What people write by mistake is among it: values of wrong types,
// sections and keys that are missing, backends that nobody knows.
//
// Threads: one.
class RandomPolicies {
 public:
  explicit RandomPolicies(unsigned seed) : _random(seed) {}

  Dictionary storebag() {
    Dictionary storebag;
    if (!oneIn(40)) storebag.set("version", "1");
    if (oneIn(4)) storebag.set("refresh_cycle", 60);
    for (const char* const name : {"development", "halcyon_internal", "seed"})
      if (oneIn(3)) storebag.set(name, section());
    if (!oneIn(20)) storebag.set("release", section());
    return storebag;
  }

  std::int32_t clientType() {
    if (oneIn(15)) return anyOf<std::int32_t, 4>({-1, 0, 3, 18});
    return clientTypeWithStorebag();
  }
  std::int32_t clientTypeWithStorebag() {
    for (;;)
      if (const auto type = static_cast<std::int32_t>(below(32)); storebagNameForClientType(type))
        return type;
  }

  storebag::Facts facts() {
    constexpr std::array<std::string_view, 6> environments{
        "release", "release", "release", "development", "halcyon_internal", "seed"};
    storebag::Facts facts;
    if (!oneIn(6)) facts.country = anyOf<const char*, 4>({"DE", "AT", "US", "de"});
    if (!oneIn(12)) facts.productFamily = anyOf<const char*, 3>({"Bench", "Workbench", "Robin"});
    if (!oneIn(6)) facts.hardwareType = anyOf<const char*, 3>({"Bench1,1", "Robin5,2", "Lanai"});
    if (!oneIn(6)) facts.productVersion = "12.3";
    if (!oneIn(6)) facts.buildVersion = "20F71";
    facts.environment = *environmentTypeNamed(anyOf(environments));
    facts.isInternal = oneIn(4);
    facts.consents = !oneIn(4);
    if (!oneIn(6)) facts.userInfo = userInfo();
    if (!oneIn(20)) facts.sessionInfo = sessionInfo();
    facts.draw = anyOf<double, 6>({0, 0.25, 0.5, 0.50001, 0.75, 0.99});
    facts.timeZoneOffset = anyOf<std::int32_t, 3>({0, 7200, -3600});
    return facts;
  }

  storebag::SentEvent event() {
    storebag::SentEvent event{
        .category = anyOf<std::uint16_t, 4>({7, 7, 0, 65535}),
        .type = anyOf<std::uint16_t, 4>({0, 1, 2, 2}),
        .flag = static_cast<std::int32_t>(below(4)),
    };
    if (oneIn(8)) return event;
    Dictionary payload{{"mark", "event"}, {"secret", "s"}, {"Account", "a"}};
    if (oneIn(3)) payload.set("when", Date{12.5});
    if (oneIn(3)) payload.set("share", 0.1);
    if (oneIn(6)) payload.set("bytes", Value(Data{"\x01"}));
    if (oneIn(6)) payload.set("list", Array{1, 2});
    if (oneIn(20)) payload.set("text", "\xff");
    event.payload = std::move(payload);
    return event;
  }

 private:
  std::size_t below(std::size_t limit) { return _random() % limit; }
  bool oneIn(std::size_t count) { return below(count) == 0; }
  template <class T, std::size_t n>
  T anyOf(const std::array<T, n>& choices) {
    return choices[below(n)];
  }

  Dictionary userInfo() {
    Dictionary info;
    if (!oneIn(8))
      info.set(std::string(kCorvidUserInfoClientName),
               anyOf<const char*, 4>({"Player", "player", "Reader", "Nobody"}));
    if (!oneIn(3))
      info.set(std::string(kCorvidUserInfoServiceName), anyOf<const char*, 2>({"Feed", "feeds"}));
    if (oneIn(6)) info.set("_method", 9);
    if (oneIn(6)) info.set("account", "of the user");
    return info;
  }

  Dictionary sessionInfo() {
    Dictionary info;
    if (!oneIn(10))
      info.set(std::string(kCorvidSessionInfoRequireUserInfo), oneIn(4) ? Value(0) : Value(true));
    if (oneIn(2)) info.set(std::string(kCorvidSessionInfoBatchEvent), true);
    if (oneIn(3)) info.set(std::string(kCorvidSessionInfoClientVersion), 3);
    if (oneIn(3)) info.set(std::string(kCorvidSessionInfoSessionID), 11);
    return info;
  }

  Dictionary section() {
    Dictionary section;
    for (const char* const name : {"httpPost", "httpPost2"})
      if (!oneIn(4)) section.set(name, profile(name));
    if (oneIn(6)) section.set("dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 4464}});
    if (oneIn(6)) section.set("uploadServer", Dictionary{{"post_url", "https://up.invalid/"}});
    if (oneIn(12)) section.set("uploadServer", Dictionary());
    if (oneIn(6)) section.set("metrix", Dictionary());
    if (oneIn(6)) section.set("wattbook", Dictionary());
    if (oneIn(12)) section.set("httpPots", profile("httpPots"));
    if (oneIn(20)) return {};
    return section;
  }

  Value profile(const char* backend) {
    if (oneIn(25)) return "no profile";
    if (oneIn(25)) return Dictionary{{"clients", "none"}};
    Array entries;
    for (std::size_t left = below(4) + !oneIn(6); left > 0; --left)
      entries.push_back(oneIn(25) ? Value("no entry") : Value(entry(backend)));
    return Dictionary{{"clients", std::move(entries)}};
  }

  Dictionary entry(const char* backend) {
    Dictionary entry;
    if (!oneIn(3))
      entry.set("client", anyOf<const char*, 4>({"Player", "Player,Reader", "Reader", ","}));
    if (oneIn(4)) entry.set("service", anyOf<const char*, 2>({"Feed", "Other"}));
    if (oneIn(2)) entry.set("expedite", anyOf<std::int32_t, 3>({0, 1, 1}));
    if (!oneIn(6)) entry.set("post_url", fmt::format("https://post.{}/{}", backend, below(9)));
    if (oneIn(3)) entry.set("realtime_post_url", fmt::format("https://now.{}/", backend));
    if (oneIn(4)) entry.set("override_dnu", anyOf<std::int32_t, 3>({0, 1, 1}));
    if (!oneIn(8))
      entry.set("locale_whitelist", oneIn(12) ? Array() : Array{"DE", oneIn(4) ? "u" : "AT", 7});
    if (oneIn(5)) entry.set("device_whitelist", Array{"Bench"});
    if (oneIn(5)) entry.set("device_blacklist", Array{"Robin", ""});
    if (!oneIn(8)) entry.set("filters", filters());
    if (!oneIn(8))
      entry.set("sampling_threshold", oneIn(12) ? Value("0.5") : Value(anyOf(thresholds)));
    if (oneIn(4))
      entry.set("per_country_sampling_thresholds",
                Array{Dictionary{{"country", Array{"AT"}}, {"threshold", anyOf(thresholds)}},
                      Dictionary{{"country", Array{"AT", "DE"}}}});
    if (oneIn(3)) entry.set("override_sampling", anyOf(thresholds));
    if (oneIn(2)) entry.set("event_threshold", anyOf<std::int32_t, 4>({-1, 0, 1, 49}));
    if (oneIn(6)) entry.set("extras_on_internal", 1);
    if (oneIn(6)) entry.set("custom_clientId", true);
    return entry;
  }

  Array filters() {
    Array filters;
    const auto add = [&](const char* key, const char* action) {
      Dictionary filter{{"key", key}, {"action", action}};
      if (oneIn(3)) filter.set("method", anyOf<std::int32_t, 2>({7, 9}));
      if (oneIn(3)) filter.set("status", anyOf<std::int32_t, 2>({1, 2}));
      filters.push_back(std::move(filter));
    };
    if (oneIn(2)) add("secret", "remove");
    if (oneIn(2)) add("account", "sha256");
    if (oneIn(4)) add("_clientName", "sha256");
    if (oneIn(4)) add("_osVersion", "remove");
    if (oneIn(6)) add("SECRET", "keep");
    return filters;
  }

  static constexpr std::array<double, 6> thresholds{-1, 0, 0.25, 0.5, 0.75, 1};

  std::mt19937 _random;
};

}  // namespace corvid
