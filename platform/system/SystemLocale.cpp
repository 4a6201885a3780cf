#include "platform/system/SystemLocale.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

namespace {

constexpr const char* localeVariables[] = {"LC_ALL", "LC_MESSAGES", "LANG"};

// Of language[_territory][.codeset][@modifier] the territory, in upper case: two letters, or three
// digits as in "es_419".
std::optional<std::string> territory(std::string_view locale) {
  locale = locale.substr(0, locale.find_first_of(".@"));
  const auto underscore = locale.find('_');
  if (underscore == std::string_view::npos) return std::nullopt;
  std::string name(locale.substr(underscore + 1));
  if (name.size() < 2 || name.size() > 3 || !std::ranges::all_of(name, isASCIILetterOrDigit))
    return std::nullopt;
  for (char& c : name)
    if (c >= 'a') c = static_cast<char>(c - 'a' + 'A');
  return name;
}

}  // namespace

DeviceAnswer SystemLocale::countryAnswer() {
  for (const char* variable : localeVariables)
    if (const char* locale = std::getenv(variable))
      if (auto found = territory(locale)) return {std::move(found), variable};

  const Result<std::string> file = readRegularFile(_localeFile);
  if (!file) return {};
  for (const char* variable : localeVariables)
    if (const auto locale = assignedValue(file.value(), variable))
      if (auto found = territory(*locale)) return {std::move(found), "locale.conf"};
  return {};
}

Sourced<std::int32_t> SystemLocale::timeZoneOffset(const TimeValue& at) {
  const char* const variable = std::getenv("TZ");
  const auto zone = variable ? std::optional<std::string>(variable) : std::nullopt;
  const std::string_view source = variable ? "TZ" : "system";
  const MutexLock lock(_mutex);
  if (_latest && _latest->second == at.seconds && _latest->zone == zone)
    return {_latest->secondsFromGMT, source};
  // localtime_r alone would keep the zone of its first call.
  tzset();
  const std::time_t time = at.seconds;
  std::tm local{};
  const bool known = localtime_r(&time, &local) != nullptr;
  _latest = {at.seconds, zone, known ? static_cast<std::int32_t>(local.tm_gmtoff) : 0};
  return {_latest->secondsFromGMT, source};
}

}  // namespace corvid
