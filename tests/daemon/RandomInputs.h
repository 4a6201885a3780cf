// Session infos, events and storebags as a number generator has them come.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <utility>

#include "base/Value.h"
#include "protocol/Keys.h"

namespace corvid {

// The same for the same seed.
//
// Threads: one.
class RandomInputs {
 public:
  // Each with a storebag of its own; the last has none. Those of 7 may use an adaptor.
  static constexpr std::array<std::int32_t, 6> clientTypes{5, 6, 7, 8, 9, 3};
  static constexpr std::int32_t adaptorType = 7;

  explicit RandomInputs(unsigned seed) : _random(seed) {}

  std::size_t below(std::size_t limit) { return _random() % limit; }
  bool oneIn(std::size_t count) { return below(count) == 0; }
  template <class T, std::size_t n>
  T anyOf(const std::array<T, n>& choices) {
    return choices[below(n)];
  }

  Dictionary sessionInfo() {
    return {{std::string(kCorvidSessionInfoSessionID), 1},
            {std::string(kCorvidSessionInfoClientType), anyOf(clientTypes)},
            {std::string(kCorvidSessionInfoRequireUserInfo), oneIn(2)},
            {std::string(kCorvidSessionInfoBatchEvent), oneIn(2)}};
  }
  std::optional<Dictionary> userInfo() {
    constexpr std::array<const char*, 3> names{"Player", "Player", "Reader"};
    if (oneIn(3)) return std::nullopt;
    return Dictionary{{std::string(kCorvidUserInfoClientName), anyOf(names)},
                      {std::string(kCorvidUserInfoServiceName), "Service"}};
  }
  std::optional<Dictionary> payload() {
    if (oneIn(6)) return std::nullopt;
    Dictionary payload{{"mark", "event"}};
    if (oneIn(12)) payload.set("picture", Value(Data{"\x01"}));  // JSON has no place for it
    if (oneIn(12)) payload.set("text", "\xff");                  // nor for this, in a message
    return payload;
  }

  // And how many backends come of it.
  std::pair<Dictionary, std::size_t> anySection(std::int32_t type) {
    Dictionary section;
    std::size_t backends = 0;
    const auto add = [&](const char* name, Dictionary profile, bool isMade) {
      section.set(name, std::move(profile));
      backends += isMade;
    };
    if (!oneIn(6)) add("httpPost", Dictionary{{"clients", clients()}}, true);
    if (oneIn(4)) add("httpPost2", Dictionary{{"clients", clients()}}, true);
    if (oneIn(4)) add("metrix", {}, type == adaptorType);
    if (oneIn(6)) add("wattbook", {}, true);
    if (oneIn(6)) add("dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 4464}}, true);
    if (oneIn(8)) add("unheardOf", {}, false);
    return {std::move(section), backends};
  }
  Array clients() {
    Array entries;
    for (std::size_t i = 0; i <= below(2); ++i) {
      Dictionary entry{{"post_url", "https://events.invalid/"},
                       {"event_threshold", int(below(4))},
                       {"override_dnu", int(below(2))},
                       {"locale_whitelist", Array{oneIn(8) ? "DE" : "US"}},
                       {"sampling_threshold", 0.5},
                       {"hierarchy", int(below(3))},
                       {"filters", Array{}}};
      if (oneIn(4)) entry.set("client", "Player");
      if (oneIn(3)) entry.set("expedite", int(below(2)));
      if (oneIn(2)) entry.set("override_sampling", 0.8);
      for (const char* const key : {"post_url", "filters", "sampling_threshold"})
        if (oneIn(12)) entry.erase(key);
      entries.push_back(std::move(entry));
    }
    return entries;
  }

 private:
  std::mt19937 _random;
};

}  // namespace corvid
