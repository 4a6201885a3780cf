// A collector that is tried, as its URL says where it is.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvid::lab::conform {

struct Collector {
  std::string host{};  // a name or an address, as a resolver takes it
  std::string port{};
  std::string authority{};  // as in the header Host
  bool isTLS = false;
  std::string caFile{};  // PEM, whom to trust for TLS; empty: whom the system trusts

  // What devices post to: paths, with a query where they have one. What is missing is not offered.
  std::optional<std::string> events{};
  std::optional<std::string> realtime{};
  std::optional<std::string> uploads{};
  std::optional<std::string> logs{};

  std::chrono::milliseconds patience = std::chrono::seconds(10);  // for each answer
};

// Of a URL of http or https, below which the four paths stand; without `paths` they are
// "/v1/events", "/v1/realtime", "/v1/uploads" and "/v1/logs". `paths` has "NAME=PATH" for those
// that are offered, separated by commas, "events" among them. Throws tools::InputError, which says
// what is wrong.
Collector collectorAt(std::string_view url, std::string_view paths = {}, std::string caFile = {});

}  // namespace corvid::lab::conform
