// The preference suites: that they can be read, and that somebody reads what stands in them.
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "base/Describe.h"
#include "base/Reading.h"
#include "base/URL.h"
#include "config/Environment.h"
#include "daemon/check/FolderListing.h"
#include "daemon/check/Inspection.h"
#include "platform/Preferences.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "platform/data/StoredConsent.h"

namespace corvid {

namespace {

// What is wrong with a preference's value; empty where nothing is.
using ValueFault = std::string (*)(const Value&);

std::string faultOfEnvironment(const Value& value) {
  const auto type = asInteger(&value);
  if (type && *type > 0 && *type <= static_cast<std::int64_t>(CorvidEnvironmentType::release))
    return {};
  return "takes 1 (development), 2 (internal), 3 (seed) or 4 (release)";
}
std::string faultOfURL(const Value& value) {
  const auto text = asText(&value);
  const auto url = text ? parseURL(*text) : std::nullopt;
  if (url && (url->scheme == "https" || url->scheme == "http") && !url->host.empty()) return {};
  return "takes a URL that begins with https://";
}
std::string faultOfFlag(const Value& value) {
  return asBoolean(&value) ? "" : "takes true or false";
}
std::string faultOfBoolean(const Value& value) {
  return value.boolean() ? "" : "takes true or false; anything else counts as false";
}
std::string faultOfText(const Value& value) {
  return value.string() && !value.string()->empty() ? "" : "takes a text";
}
std::string faultOfTexts(const Value& value) {
  return value.array() ? "" : "takes a list of texts";
}

struct KnownPreference {
  std::string_view suite;
  std::string_view key;  // one that ends in ":" is the beginning of many
  ValueFault faultOf;
};
constexpr std::array knownPreferences{
    KnownPreference{corvidSuite, "environmentType", faultOfEnvironment},
    KnownPreference{corvidSuite, "corvid_storebag_url", faultOfURL},
    KnownPreference{corvidSuite, "httpsPostURL", faultOfURL},
    KnownPreference{corvidSuite, "httpsRealtimePostURL", faultOfURL},
    KnownPreference{corvidSuite, "forceEventLogging", faultOfFlag},
    KnownPreference{corvidSuite, "identifierRespectingConsent", faultOfText},
    KnownPreference{corvidSuite, "identifierOverridingConsent", faultOfText},
    KnownPreference{corvidSuite, "uuid:", faultOfText},
    KnownPreference{"com.halcyon.corvid.identifiers", "Uses", faultOfTexts},
    KnownPreference{diagnosticsSuite, "SubmitDiagnostics", faultOfBoolean},
    KnownPreference{"com.halcyon.timed", "TMAutomaticTimeZoneEnabled", faultOfFlag},
};

const KnownPreference* knownPreference(std::string_view suite, std::string_view key) {
  for (const KnownPreference& known : knownPreferences)
    if (known.suite == suite &&
        (known.key == key || (known.key.ends_with(':') && key.starts_with(known.key))))
      return &known;
  return nullptr;
}

void checkSuite(const std::string& path, const Dictionary& entries, Inspection& it) {
  const std::string suite = std::filesystem::path(path).stem();
  bool isSound = true;
  for (const auto& [key, value] : entries) {
    const KnownPreference* const known = knownPreference(suite, key);
    const std::string fault =
        known ? known->faultOf(value) : std::string("is a preference that no code reads");
    if (fault.empty()) continue;
    isSound = false;
    it.found.wrong(path, fmt::format("\"{}\" {}", key, fault),
                   fmt::format("{} prefs --suite {} delete {}", it.corvidctl(), shellWord(suite),
                               shellWord(key)));
  }
  if (isSound) it.found.right(path, fmt::format("{} preferences", entries.size()));
}

bool isKnownSuite(std::string_view suite) {
  for (const KnownPreference& known : knownPreferences)
    if (known.suite == suite) return true;
  return false;
}

void checkSuiteFile(const std::string& path, Inspection& it) {
  const std::string suite = std::filesystem::path(path).stem();
  if (!isKnownSuite(suite))
    return it.found.wrong(
        path, "is a suite that no code reads; take it away",
        it.asRoot(fmt::format("mv -n {} {}", shellWord(path), shellWord(it.paths.home))));
  const auto entries = readDictionaryFile(path);
  if (!entries && entries.failure().code == 0)
    return it.found.wrong(
        path, entries.failure().message + "; set it aside, as the daemon does when it reads it",
        it.asRoot(fmt::format("mv -n {0} {1}", shellWord(path),
                              shellWord(unusedName(path + ".damaged-")))));
  if (const auto sound = it.usable(path, entries, Findings::Kind::note, "gone while it was read"))
    checkSuite(path, *sound, it);
}

}  // namespace

void checkPreferences(Inspection& it) {
  const std::string& folder = it.paths.preferencesFolder;
  const auto files = propertyListsIn(folder);
  if (!files && files.failure().code == ENOENT)
    return it.found.note(folder, "missing: made when the first preference is set");
  if (!files && files.failure().code == EACCES) return it.reportUnreadable(folder);
  if (!files)
    return it.found.wrong(folder, files.failure().message + "; give it to the daemon's user");
  for (const std::string& path : files.value()) checkSuiteFile(path, it);
  for (const std::string& path : othersIn(folder)) {
    if (path.find(".plist.damaged-") != std::string::npos)
      it.found.note(path, "was damaged, and is read by nothing");
    else if (!path.ends_with(".plist.new"))  // one that is just being written
      it.found.wrong(
          path, "is read by nothing: its name does not end in .plist; take it away",
          it.asRoot(fmt::format("mv -n {} {}", shellWord(path), shellWord(it.paths.home))));
  }
}

}  // namespace corvid
