#include "tools/lab/conform/Collector.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Text.h"
#include "base/URL.h"
#include "tools/Arguments.h"

namespace corvid::lab::conform {

namespace {

using tools::InputError;

constexpr std::string_view usualPaths =
    "events=/v1/events,realtime=/v1/realtime,uploads=/v1/uploads,logs=/v1/logs";

std::optional<std::string>* addressNamed(Collector& collector, std::string_view name) {
  if (name == "events") return &collector.events;
  if (name == "realtime") return &collector.realtime;
  if (name == "uploads") return &collector.uploads;
  if (name == "logs") return &collector.logs;
  return nullptr;
}

void setPaths(Collector& collector, std::string_view base, std::string_view paths) {
  for (const std::string_view each : split(paths, ',')) {
    const std::size_t equals = std::min(each.find('='), each.size());
    const std::string_view path = each.substr(std::min(equals + 1, each.size()));
    std::optional<std::string>* const address = addressNamed(collector, each.substr(0, equals));
    if (address == nullptr || !path.starts_with('/') || !parseURL(path) ||
        path.find('#') != path.npos)
      throw InputError(fmt::format(
          "a path is given as events=/PATH, realtime=/PATH, uploads=/PATH or logs=/PATH, not \"{}\"",
          each));
    *address = fmt::format("{}{}", base, path);
  }
  if (!collector.events) throw InputError("a collector has a path for events");
}

}  // namespace

Collector collectorAt(std::string_view url, std::string_view paths, std::string caFile) {
  const std::optional<URL> parsed = parseURL(url);
  const bool isTLS = parsed && equalsIgnoringCase(parsed->scheme, "https");
  if (!parsed || parsed->host.empty() || (!isTLS && !equalsIgnoringCase(parsed->scheme, "http")))
    throw InputError(
        fmt::format("a collector's URL begins with http:// or https://, as \"{}\" does not", url));
  Collector collector;
  collector.isTLS = isTLS;
  collector.caFile = std::move(caFile);
  collector.authority = hostAndPort(url);
  const std::size_t colon = collector.authority.rfind(':');
  collector.port = collector.authority.substr(colon + 1);
  collector.host = collector.authority.substr(0, colon);
  if (collector.host.starts_with('['))
    collector.host = collector.host.substr(1, collector.host.size() - 2);

  const auto* const pathStart = parsed->authority.data() + parsed->authority.size();
  std::string_view base = url.substr(static_cast<std::size_t>(pathStart - url.data()));
  if (base.find_first_of("?#") != base.npos)
    throw InputError("a collector's URL has neither a query nor a fragment");
  while (base.ends_with('/')) base.remove_suffix(1);
  setPaths(collector, base, paths.empty() ? usualPaths : paths);
  return collector;
}

}  // namespace corvid::lab::conform
