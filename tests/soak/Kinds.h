// The kinds of clients that a soak has, and what the daemon is told of them.
#pragma once

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"

namespace corvid::soak {

// All sessions of a kind have one client type, and so one storebag.
struct Kind {
  std::string_view name;
  int clientType;
  std::string_view storebag;  // its name; empty where the type has none
  std::string_view server;    // "live" or "bulk": where events go; empty where to none
  bool requiresUserInfo;
  bool givesUserInfo;
  bool batches;
  int weight;  // how often it is drawn
  // What may become of its events, and of answers to them, without any fault: words of Ledger.h.
  std::vector<std::string_view> words;
};

std::span<const Kind> kinds();
const Kind* kindNamed(std::string_view name);
// By weight; `draw` is any number.
const Kind& drawKind(std::uint64_t draw);

// What the lab publishes for a kind that has a storebag; `urls` by server.
Dictionary storebagOf(const Kind& kind, const std::map<std::string, std::string>& urls);

}  // namespace corvid::soak
