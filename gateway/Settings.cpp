#include "gateway/Settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>

#include "base/LogLine.h"
#include "base/NearestWord.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "gateway/http/AddressRange.h"

namespace corvid::fleet {

namespace {

// What is wrong with the value; nothing where it was taken.
using Take = std::optional<std::string> (*)(Settings&, std::string_view);

template <std::size_t Settings::*field, std::size_t least>
std::optional<std::string> takeCount(Settings& settings, std::string_view value) {
  constexpr std::size_t most = std::size_t{1} << 40;
  const auto number = numberFrom<std::size_t>(value);
  if (!number || *number < least || *number > most)
    return fmt::format("takes a whole number from {} to {}", least, most);
  settings.*field = *number;
  return std::nullopt;
}

template <std::chrono::milliseconds Settings::*field>
std::optional<std::string> takeTime(Settings& settings, std::string_view value) {
  constexpr int most = 3'600'000;
  const auto number = numberFrom<int>(value);
  if (!number || *number < 1 || *number > most)
    return fmt::format("takes milliseconds from 1 to {}", most);
  settings.*field = std::chrono::milliseconds(*number);
  return std::nullopt;
}

std::optional<std::string> takeProxies(Settings& settings, std::string_view value) {
  settings.proxies.clear();
  for (const std::string_view each : split(value, ' ')) {
    if (each.empty()) continue;
    if (!AddressRange::parse(each)) return "takes addresses and ADDRESS/BITS, separated by blanks";
    settings.proxies.emplace_back(each);
  }
  return std::nullopt;
}

std::optional<std::string> takeHeader(Settings& settings, std::string_view value) {
  const auto isPart = [](char c) { return isASCIILetterOrDigit(c) || c == '-'; };
  if (value.empty() || !std::ranges::all_of(value, isPart)) return "takes a header's name";
  settings.clientHeader = value;
  return std::nullopt;
}

struct Name {
  std::string_view name;
  Take take;
};
constexpr std::array<Name, 13> names{{
    {"connections", takeCount<&Settings::connections, 1>},
    {"client-connections", takeCount<&Settings::clientConnections, 1>},
    {"client-exchanges", takeCount<&Settings::clientExchanges, 1>},
    {"client-requests", takeCount<&Settings::clientRequests, 1>},
    {"client-bytes", takeCount<&Settings::clientBytes, 1>},
    {"client-time", takeCount<&Settings::clientTime, 1>},
    {"idle-time", takeTime<&Settings::idleTime>},
    {"head-time", takeTime<&Settings::headTime>},
    {"body-time", takeTime<&Settings::bodyTime>},
    {"body-rate", takeCount<&Settings::bodyRate, 1>},
    {"free-space", takeCount<&Settings::freeSpace, 0>},
    {"proxies", takeProxies},
    {"client-header", takeHeader},
}};

std::string unknown(std::string_view name) {
  std::vector<std::string_view> known;
  for (const Name& each : names) known.push_back(each.name);
  const auto nearest = nearestWord(name, known);
  return nearest ? fmt::format("there is no such setting; \"{}\" is meant?", *nearest)
                 : "there is no such setting";
}

}  // namespace

Result<Settings> parseSettings(std::string_view text) {
  Settings settings;
  std::size_t number = 0;
  for (const std::string_view whole : split(text, '\n')) {
    ++number;
    const std::string_view line = trimmed(whole.substr(0, whole.find('#')));
    if (line.empty()) continue;
    const std::size_t equals = line.find('=');
    const std::string_view name = trimmed(line.substr(0, equals));
    if (equals == line.npos) return Failure{fmt::format("line {}: lacks a \"=\"", number)};
    const auto known = std::ranges::find(names, name, &Name::name);
    const auto fault = known == names.end()
                           ? unknown(name)
                           : known->take(settings, trimmed(line.substr(equals + 1)));
    if (fault)
      return Failure{fmt::format("line {}: {}: {}", number, logLine(name, name.size()), *fault)};
  }
  return settings;
}

Result<Settings> readSettings(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  if (!stream.is_open() || stream.bad()) return Failure{file + " cannot be read"};
  Result<Settings> settings = parseSettings(text);
  if (!settings) return Failure{fmt::format("{}, {}", file, settings.failure().message)};
  return settings;
}

}  // namespace corvid::fleet
