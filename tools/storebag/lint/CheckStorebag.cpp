// A storebag as a whole, and the sections of its environments.
#include <fmt/format.h>

#include <cstdint>

#include "base/Reading.h"
#include "config/Environment.h"
#include "protocol/Keys.h"
#include "protocol/Reason.h"
#include "tools/storebag/lint/Checks.h"

namespace corvid::storebag {

namespace {

constexpr std::int64_t longestCycle = 86400;

void checkUploadServer(const Dictionary& profile, const std::string& path, Report& report) {
  const std::string* address = stringAt(profile, "post_url");
  if (address && address->find_first_of("?#") != std::string::npos)
    report.note(join(path, "post_url"),
                "has a query or a fragment, behind which devices add a query of their own",
                "leave out what begins with \"?\" or \"#\"");
}

void checkSection(const Dictionary& section, const std::string& path, PassingCountries& countries,
                  Report& report) {
  if (section.empty())
    return report.note(path, fmt::format("names no backend: its devices report nothing ({})",
                                         wordOf(Reason::noBackendMade)));
  for (const auto& [name, value] : section) {
    const Dictionary* profile = value.dictionary();
    if (!profile) continue;
    const std::string below = join(path, name);
    const Array* clients = arrayAt(*profile, "clients");
    if (clients && (name == kCorvidBackendHTTPPost || name == kCorvidBackendHTTPPost2))
      checkEntries(*clients, join(below, "clients"), countries, report);
    if (name == kCorvidBackendUploadServer) checkUploadServer(*profile, below, report);
    if (name == kCorvidBackendDashboard && !profile->contains("post_url"))
      report.note(join(below, "post_url"), "is missing: log data is refused");
  }
}

void checkRefreshCycle(const Dictionary& storebag, Report& report) {
  const auto seconds = integerAt(storebag, "refresh_cycle");
  if (!seconds) return;
  if (*seconds > longestCycle)
    report.note("refresh_cycle", fmt::format("{} counts as {}, a day", *seconds, longestCycle),
                fmt::format("write {}", longestCycle));
  if (*seconds <= 0)
    report.note("refresh_cycle", "is never fresh: each configuration of a client fetches it anew");
}

}  // namespace

void checkStorebag(const Dictionary& storebag, Report& report) {
  if (const std::string* version = stringAt(storebag, "version"); version && version->empty())
    report.note("version", "is empty: nobody can tell which storebag is in force");
  checkRefreshCycle(storebag, report);
  PassingCountries countries;
  const auto seed = environmentNameForType(CorvidEnvironmentType::seed);
  const auto release = environmentNameForType(CorvidEnvironmentType::release);
  for (const StorebagKey& key : storebagKeysAt(StorebagPlace::storebag)) {
    if (key.content != StorebagPlace::section) continue;
    const std::string name(key.name);
    if (const Dictionary* section = dictionaryAt(storebag, name))
      checkSection(*section, name, countries, report);
    else if (name != seed || !dictionaryAt(storebag, *release))
      report.note(name, fmt::format("is missing: devices of this environment report nothing ({})",
                                    wordOf(Reason::noSectionForEnvironment)));
  }
}

std::vector<LintFinding> lint(const Value& storebag) {
  Report report;
  if (const Dictionary* dictionary = storebag.dictionary()) {
    checkKeys(*dictionary, StorebagPlace::storebag, "", report);
    checkStorebag(*dictionary, report);
  } else {
    report.wrong("", "is no dictionary, as which devices read it");
  }
  return std::move(report).take();
}

}  // namespace corvid::storebag
