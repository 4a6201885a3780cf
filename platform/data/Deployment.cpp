#include "platform/data/Deployment.h"

#include <fmt/format.h>

#include <charconv>
#include <string_view>
#include <utility>

#include "base/Reading.h"
#include "base/URL.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::string_view settings[] = {"ProductionStorebagHost",
                                         "InternalStorebagHost",
                                         "CAFile",
                                         "AllowInsecureHTTP",
                                         "ConsentIsLive",
                                         "TCPPorts",
                                         "MessageLog",
                                         "KeepStorebags",
                                         "RequireSHA256Signature",
                                         "RefuseOlderStorebags",
                                         "RefreshJitter"};
constexpr const char* ofWrongType = "is of the wrong type";

constexpr double mostRefreshJitter = 0.5;

constexpr std::uint16_t nameServicePort = 53;
constexpr std::uint16_t httpsPort = 443;

// The port in `host[:port]`; 0 where there is none.
std::uint16_t portOf(const std::string& host) {
  const std::string url = "https://" + host;
  const auto parts = parseURL(url);
  std::uint16_t port = 0;
  if (!parts) return port;
  const char* const end = parts->authority.data() + parts->authority.size();
  const char* const colon = parts->host.data() + parts->host.size();
  if (colon < end) std::from_chars(colon + 1, end, port);
  return port;
}

// Of `host[:port]`.
std::optional<SettingFault> faultOfHost(std::string_view key, const std::string& host) {
  const std::string behindScheme = "https://" + host;
  const auto parts = parseURL(behindScheme);
  const bool isHost = parts && !parts->host.empty() && parts->authority == host &&
                      !host.ends_with(':') && host.find('@') == host.npos &&
                      (parts->host.size() == host.size() || portOf(host) != 0);
  if (isHost) return std::nullopt;
  SettingFault fault{std::string(key),
                     fmt::format("takes a host, or host:port, and \"{}\" is neither", host)};
  // The host of a URL, or what stands before a path.
  const auto url = parseURL(host);
  const std::string_view meant = url && !url->authority.empty() ? url->authority
                                 : parts                        ? parts->authority
                                                                : std::string_view();
  if (!meant.empty() && meant.size() < host.size() && !faultOfHost(key, std::string(meant))) {
    fault.text = fmt::format("<string>{}</string>", host);
    fault.replacement = fmt::format("<string>{}</string>", meant);
  }
  return fault;
}

std::set<std::uint16_t> portsIn(const Value& value, bool& hasOthers) {
  std::set<std::uint16_t> ports;
  const Array* array = value.array();
  if (array == nullptr) return hasOthers = true, ports;
  for (const Value& item : *array) {
    const auto number = item.integer();
    if (number && *number > 0 && *number <= UINT16_MAX)
      ports.insert(static_cast<std::uint16_t>(*number));
    else
      hasOthers = true;
  }
  return ports;
}

}  // namespace

std::optional<std::set<std::uint16_t>> reachableTCPPorts(const Deployment& deployment) {
  auto ports = deployment.tcpPorts;
  if (ports) {
    ports->insert({nameServicePort, httpsPort});
    for (const auto* host : {&deployment.productionStorebagHost, &deployment.internalStorebagHost})
      if (const std::uint16_t port = portOf(*host); port != 0) ports->insert(port);
  }
  return ports;
}

std::optional<Failure> faultOfCAFile(const std::string& path) {
  const Result<std::string> content = readRegularFile(path);
  if (!content) return content.failure();
  if (content.value().find("-----BEGIN CERTIFICATE-----") == std::string::npos)
    return Failure{path + ": no certificate in PEM form"};
  return std::nullopt;
}

Result<Deployment> readDeployment(const std::string& path) {
  const Result<Dictionary> values = readDictionaryFile(path);
  if (!values) return values.failure();
  Deployment deployment;
  const auto find = [&](std::string_view key, Value::Type type) -> const Value* {
    const Value* value = values.value().find(key);
    if (!value || value->type() == type) return value;
    deployment.faults.push_back({std::string(key), ofWrongType});
    return nullptr;
  };
  const auto takeText = [&](std::string_view key, auto& into) {
    const Value* value = find(key, Value::Type::string);
    if (value && !value->string()->empty()) into = *value->string();
  };
  const auto takeHost = [&](std::string_view key, std::string& into) {
    takeText(key, into);
    if (auto fault = faultOfHost(key, into)) deployment.faults.push_back(*std::move(fault));
  };
  takeHost("ProductionStorebagHost", deployment.productionStorebagHost);
  takeHost("InternalStorebagHost", deployment.internalStorebagHost);
  takeText("CAFile", deployment.caFile);
  if (deployment.caFile && !deployment.caFile->starts_with('/'))
    deployment.faults.push_back({"CAFile", "is no absolute path"});
  const auto takeFlag = [&](std::string_view key, bool& into) {
    if (const Value* value = find(key, Value::Type::boolean)) into = *value->boolean();
  };
  // Nothing but a plain yes lowers a guard.
  takeFlag("AllowInsecureHTTP", deployment.allowInsecureHTTP);
  takeFlag("ConsentIsLive", deployment.consentIsLive);
  takeFlag("MessageLog", deployment.messageLog);
  takeFlag("KeepStorebags", deployment.keepStorebags);
  takeFlag("RequireSHA256Signature", deployment.requireSHA256Signature);
  takeFlag("RefuseOlderStorebags", deployment.refuseOlderStorebags);
  if (const Value* value = values.value().find("RefreshJitter")) {
    const auto share = asNumber(value);
    if (share && *share >= 0 && *share <= mostRefreshJitter)
      deployment.refreshJitter = *share;
    else
      deployment.faults.push_back(
          {"RefreshJitter", "takes a number from 0 to 0.5, and counts as 0"});
  }
  if (const Value* value = values.value().find("TCPPorts")) {
    bool hasOthers = false;
    deployment.tcpPorts = portsIn(*value, hasOthers);
    if (hasOthers) deployment.faults.push_back({"TCPPorts", ofWrongType});
  }
  for (SettingFault& fault : unknownKeys(values.value(), settings))
    deployment.faults.push_back(std::move(fault));
  return deployment;
}

}  // namespace corvid
