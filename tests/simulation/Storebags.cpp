#include "tests/simulation/Storebags.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <utility>

#include "tests/daemon/RandomInputs.h"

namespace corvid::simulation {

namespace {

class Author : RandomInputs {
 public:
  explicit Author(unsigned number) : RandomInputs(number), _number(number) {}

  Dictionary storebag() {
    Dictionary storebag{{"version", fmt::format("{}", _number)}};
    if (oneIn(3)) storebag.set("refresh_cycle", anyOf(ages));
    for (const char* const name : {"development", "halcyon_internal", "seed"})
      if (!oneIn(4)) storebag.set(name, section());
    if (!oneIn(15)) storebag.set("release", section());
    return storebag;
  }

 private:
  Dictionary section() {
    Dictionary section;
    if (!oneIn(10)) section.set("httpPost", profile("httpPost"));
    if (oneIn(3)) section.set("httpPost2", profile("httpPost2"));
    if (oneIn(8)) section.set("dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 4464}});
    if (oneIn(6)) section.set("uploadServer", Dictionary{{"post_url", "https://up.invalid/"}});
    if (oneIn(3)) section.set("metrix", Dictionary{{"active", true}});
    if (oneIn(8)) section.set("wattbook", Dictionary());
    if (oneIn(12)) section.set("httpPots", profile("httpPots"));
    return section;
  }

  Dictionary profile(const char* backend) {
    Dictionary profile;
    if (oneIn(3)) profile.set("display_url", fmt::format("https://show.{}/", backend));
    if (oneIn(30)) return profile;
    Array entries;
    for (std::size_t left = 1 + below(3); left > 0; --left) entries.push_back(entry(backend));
    profile.set("clients", std::move(entries));
    return profile;
  }

  Dictionary entry(const char* backend) {
    Dictionary entry;
    if (oneIn(2)) entry.set("client", anyOf(clients));
    if (oneIn(4)) entry.set("service", anyOf(services));
    if (oneIn(3)) entry.set("expedite", int(below(2)));
    if (!oneIn(12)) entry.set("post_url", fmt::format("https://post.{}/{}", backend, below(9)));
    if (oneIn(2))
      entry.set("realtime_post_url", fmt::format("https://now.{}/{}", backend, below(9)));
    if (oneIn(2)) entry.set("hierarchy", int(below(4)));
    if (oneIn(3)) entry.set("override_dnu", int(below(3)));
    if (!oneIn(25)) entry.set("locale_whitelist", oneIn(12) ? Array{"DE", "AT"} : Array{"u", "DE"});
    if (oneIn(10)) entry.set("device_whitelist", Array{oneIn(3) ? "Wren" : "rob"});
    if (oneIn(10)) entry.set("device_blacklist", Array{oneIn(3) ? "robin" : "Wren"});
    if (!oneIn(25)) entry.set("filters", filters());
    if (!oneIn(25)) entry.set("sampling_threshold", anyOf(thresholds));
    if (oneIn(6))
      entry.set("per_country_sampling_thresholds",
                Array{Dictionary{{"country", Array{"AT"}}, {"threshold", anyOf(thresholds)}},
                      Dictionary{{"country", Array{"DE", "AT"}}},
                      Dictionary{{"country", Array{"US"}}, {"threshold", anyOf(thresholds)}}});
    if (oneIn(2)) entry.set("override_sampling", anyOf(thresholds));
    if (!oneIn(4)) entry.set("event_threshold", anyOf(limits));
    if (oneIn(6)) entry.set("extras_on_internal", 1);
    if (oneIn(5)) entry.set("custom_clientId", true);
    return entry;
  }

  Array filters() {
    Array filters;
    const auto add = [&](const char* key, const char* action) {
      Dictionary filter{{"key", key}, {"action", action}};
      if (oneIn(4)) filter.set("method", int(below(3)));
      if (oneIn(4)) filter.set("status", int(below(3)));
      filters.push_back(std::move(filter));
    };
    if (oneIn(6)) add("SECRET", "keep");
    if (oneIn(2)) add("secret", "remove");
    if (oneIn(2)) add("Account", "sha256");
    if (oneIn(5)) add("_clientname", "sha256");
    if (oneIn(5)) add("_osVersion", "remove");
    return filters;
  }

  static constexpr std::array<const char*, 5> clients{"Player", "Player,Reader", "Reader,player",
                                                      "Reader", ","};
  static constexpr std::array<const char*, 3> services{"Feed", "fe,Other", "Other"};
  static constexpr std::array<double, 6> thresholds{0, 0.25, 0.5, 0.75, 1, 1};
  static constexpr std::array<int, 6> limits{-1, 0, 1, 5, 20, 49};
  static constexpr std::array<int, 5> ages{0, 1800, 3600, 7200, 100'000};

  const unsigned _number;
};

}  // namespace

Dictionary storebagOf(unsigned number) { return Author(number).storebag(); }

}  // namespace corvid::simulation
