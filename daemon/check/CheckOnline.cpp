// What the configuration leads to: each storebag, and each server that one names.
#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <future>
#include <map>
#include <set>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "base/URL.h"
#include "config/Environment.h"
#include "config/PublicKeys.h"
#include "config/StorebagEnvelope.h"
#include "config/StorebagFetch.h"
#include "daemon/check/Inspection.h"
#include "daemon/check/LookingPlatform.h"
#include "platform/Platform.h"
#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "platform/http/Address.h"
#include "platform/http/ServerTrust.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

constexpr std::chrono::seconds connectionPatience{10};
constexpr std::int32_t clientTypes = 18;
constexpr int notFound = 404;

std::set<std::string> storebagNames() {
  std::set<std::string> names;
  for (std::int32_t type = 0; type < clientTypes; ++type)
    if (auto name = storebagNameForClientType(type)) names.insert(*std::move(name));
  return names;
}

// All at once, so that servers that do not answer cost their time once.
std::map<std::string, std::future<HTTPOutcome>> startedFetches() {
  std::map<std::string, std::future<HTTPOutcome>> fetches;
  for (const std::string& name : storebagNames()) {
    const auto outcome = std::make_shared<std::promise<HTTPOutcome>>();
    fetches.emplace(name, outcome->get_future());
    Platform::current().http().start(
        storebagRequest(storebagURL(name), std::nullopt),
        [outcome](HTTPOutcome result) { outcome->set_value(std::move(result)); });
  }
  return fetches;
}

// Adds the text under the key, where it is one.
void addAddress(const Dictionary& from, std::string_view key, std::set<std::string>& addresses) {
  if (const std::string* address = stringAt(from, key)) addresses.insert(*address);
}

// Of posts, uploads and log data.
std::set<std::string> addressesIn(const Dictionary& section) {
  std::set<std::string> addresses;
  for (const auto& [backend, profile] : section) {
    const Dictionary* settings = profile.dictionary();
    if (!settings) continue;
    if (backend == kCorvidBackendUploadServer || backend == kCorvidBackendDashboard)
      addAddress(*settings, "post_url", addresses);
    if (backend != kCorvidBackendHTTPPost && backend != kCorvidBackendHTTPPost2) continue;
    const Array* clients = arrayAt(*settings, "clients");
    if (!clients) continue;
    for (const Value& client : *clients)
      if (client.dictionary()) {
        addAddress(*client.dictionary(), "post_url", addresses);
        addAddress(*client.dictionary(), "realtime_post_url", addresses);
      }
  }
  return addresses;
}

// The addresses that the storebag leads to.
std::set<std::string> checkStorebag(const std::string& name, const HTTPOutcome& outcome,
                                    Inspection& it) {
  const std::string url = storebagURL(name);
  if (!outcome.response) {
    it.found.wrong(url, fmt::format("cannot be fetched: {}",
                                    outcome.error ? outcome.error->description : "no answer"));
    return {};
  }
  const int status = outcome.response->status;
  if (status == notFound) {
    it.found.note(url, fmt::format("the server has no storebag {} (404)", name));
    return {};
  }
  LocalFileSystem files;
  const OpenedEnvelope opened = openEnvelope(
      outcome.response->body, readPublicKeys(files, it.paths).usable, rulesOfDeployment());
  const auto& storebag = opened.storebag;
  if (!storebag) {
    it.found.wrong(url, fmt::format("the answer, {}, is no storebag for this device: {}", status,
                                    opened.parseError.value_or(std::string(opened.lack))));
    return {};
  }
  const std::string environment = currentEnvironmentName().value.value_or("");
  const auto type = environmentTypeNamed(environment);
  const Dictionary* section = type ? sectionForEnvironment(*storebag, *type) : nullptr;
  if (!section) {
    it.found.wrong(url, fmt::format("has no section for the environment {}", environment));
    return {};
  }
  if (const std::string* version = stringAt(*storebag, "version"))
    it.found.right(url, fmt::format("storebag {}, version {}, is verified", name, *version));
  else
    it.found.wrong(url, "has no version, so nobody is configured by it");
  return addressesIn(*section);
}

std::uint16_t portOf(const URL& url) {
  const std::string_view port = url.authority.substr(url.host.size());
  std::uint16_t number = equalsIgnoringCase(url.scheme, "http") ? 80 : 443;
  if (port.size() > 1) std::from_chars(port.data() + 1, port.data() + port.size(), number);
  return number;
}

// Each server once, however many addresses lead to it.
void checkAddress(const std::string& address, std::set<std::string>& tried, Inspection& it) {
  const auto deployment = Platform::current().deployment();
  const Result<URL> taken = addressOf(address, deployment->allowInsecureHTTP);
  if (!taken) return it.found.wrong(address, "is an address that no daemon takes");
  const URL& url = taken.value();
  const std::string server = fmt::format("{}://{}/", url.scheme, url.authority);
  if (!tried.insert(server).second) return;
  if (const auto ports = reachableTCPPorts(*deployment); ports && !ports->contains(portOf(url)))
    return it.found.wrong(
        server, fmt::format("the port {} is not among TCPPorts of the deployment", portOf(url)));
  if (const auto failure = tryConnection(server, deployment->caFile, connectionPatience))
    it.found.wrong(server, fmt::format("cannot be connected to: {}", failure->message));
  else
    it.found.right(server, "can be connected to");
}

}  // namespace

void checkOnline(Inspection& it) {
  const LookingPlatform platform(it.paths);
  auto fetches = startedFetches();
  std::set<std::string> addresses;
  for (auto& [name, outcome] : fetches) addresses.merge(checkStorebag(name, outcome.get(), it));
  std::set<std::string> tried;
  for (const std::string& address : addresses) checkAddress(address, tried, it);
}

}  // namespace corvid
