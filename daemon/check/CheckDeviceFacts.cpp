// What the device answers, as the daemon would be told, and what keeps it silent.
#include <fmt/format.h>

#include "base/Describe.h"
#include "base/Reading.h"
#include "config/DeviceFacts.h"
#include "daemon/check/Inspection.h"
#include "daemon/check/LookingPlatform.h"
#include "platform/data/StoredConsent.h"

namespace corvid {

namespace {

std::string shown(const Value& value) {
  if (value.boolean()) return *value.boolean() ? "true" : "false";
  return value.string() ? *value.string() : std::to_string(value.integer().value_or(0));
}

// Where nothing answers.
std::string lack(std::string_view name, const Inspection& it) {
  if (name == "country")
    return fmt::format(
        "has no country: neither LC_ALL, LC_MESSAGES nor LANG names one, here or in {}; lists of "
        "countries do not hold it back",
        it.paths.localeFile);
  if (name == "productFamily") return "has no productFamily, so nothing reports over HTTPS";
  return fmt::format("has no {}", name);
}

}  // namespace

void checkDeviceFacts(Inspection& it) {
  const LookingPlatform platform(it.paths);
  const Dictionary facts = deviceFacts();
  for (const auto& [name, entry] : facts) {
    const Value& value = *entry.dictionary()->find("value");
    const std::string* const source = stringAt(*entry.dictionary(), "source");
    if (!source) {
      it.found.note("device", lack(name, it));
    } else if (name == "consent" && value.boolean() == false) {
      it.found.note("device",
                    "the user has not consented, so clients that require user info report only "
                    "where their storebag does without",
                    fmt::format("{} prefs --suite {} set SubmitDiagnostics true", it.corvidctl(),
                                diagnosticsSuite));
    } else {
      it.found.right("device", fmt::format("{} is {} ({})", name, shown(value), *source));
    }
  }
}

}  // namespace corvid
