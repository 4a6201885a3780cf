// What a collector breaks of the rules in docs/collector.md.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lab/conform/Check.h"

namespace corvid::lab::conform {

// All checks in their order. The last one asks whether the collector serves as before.
std::vector<Check> allChecks();

struct Finding {
  enum class Kind { ok, broken, notApplicable };
  Kind kind;
  std::string_view name;  // of the check
  std::string line;       // for people, without its end
};

// One check, made by a device.
Finding finding(const Check& check, Device& device);

struct Summary {
  std::size_t ok = 0;
  std::size_t broken = 0;
  std::size_t notApplicable = 0;
  std::string clientID{};  // of the posts that were made

  // One line for people, without its end.
  std::string text() const;
};

// Plays devices against the collector, check after check; `each` is told what was found as soon as
// it is. Throws std::runtime_error where the collector cannot be reached at the beginning.
Summary tryCollector(const Collector& collector, const std::function<void(const Finding&)>& each);

}  // namespace corvid::lab::conform
