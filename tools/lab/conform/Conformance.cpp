#include "tools/lab/conform/Conformance.h"

#include <fmt/format.h>

#include <iterator>
#include <stdexcept>
#include <utility>

#include "tools/lab/conform/Checks.h"
#include "tools/lab/conform/Connection.h"

namespace corvid::lab::conform {

namespace {

constexpr std::string_view addressNames[] = {"events", "realtime", "uploads", "logs"};

std::string lineOf(std::string_view word, const Check& check) {
  return fmt::format("{:<7} {:<15} {}", word, check.name, check.rule);
}

std::vector<Trial> stillServing(Device& device) {
  return {{"a post after all these", device.soundPost(), Expected::taken}};
}

}  // namespace

std::vector<Check> allChecks() {
  std::vector<Check> all;
  for (auto&& group :
       {postChecks(), connectionChecks(), bodyChecks(), requestChecks(), fileChecks()})
    all.insert(all.end(), group.begin(), group.end());
  all.push_back(checkOf("stillServing", Address::events,
                        "sound posts are taken after all that was wrong", stillServing));
  return all;
}

Finding finding(const Check& check, Device& device) {
  if (!pathOf(device.collector(), check.address))
    return {Finding::Kind::notApplicable, check.name,
            fmt::format("{}: there is no address for {}", lineOf("n/a", check),
                        addressNames[static_cast<std::size_t>(check.address)])};
  std::optional<Breach> breach;
  try {
    breach = check.run(device);
  } catch (const std::runtime_error& error) {
    breach = Breach{"nothing yet", error.what()};
  }
  if (!breach) return {Finding::Kind::ok, check.name, lineOf("ok", check)};
  return {Finding::Kind::broken, check.name,
          fmt::format("{}; sent: {}; answered: {}", lineOf("broken", check), breach->sent,
                      breach->answered)};
}

std::string Summary::text() const {
  return fmt::format("{} checks: {} ok, {} broken, {} not applicable; client identifier {}",
                     ok + broken + notApplicable, ok, broken, notApplicable, clientID);
}

Summary tryCollector(const Collector& collector, const std::function<void(const Finding&)>& each) {
  { const Connection reachable(collector); }
  Device device(collector);
  Summary summary{.clientID = device.clientID()};
  for (const Check& check : allChecks()) {
    const Finding found = finding(check, device);
    switch (found.kind) {
      case Finding::Kind::ok: ++summary.ok; break;
      case Finding::Kind::broken: ++summary.broken; break;
      case Finding::Kind::notApplicable: ++summary.notApplicable; break;
    }
    each(found);
  }
  return summary;
}

}  // namespace corvid::lab::conform
