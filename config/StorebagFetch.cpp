#include "config/StorebagFetch.h"

#include <chrono>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "config/CacheControl.h"
#include "config/DeviceInformation.h"
#include "config/StorebagEnvelope.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

constexpr std::chrono::seconds fetchTimeout{15};
// The one storebag whose clients go on reporting when no server can be reached.
constexpr std::string_view fallbackName = "parlor";

std::string computeStorebagServerURL() {
  Platform& platform = Platform::current();
  const auto preferred = platform.preferences().value(corvidSuite, "corvid_storebag_url");
  if (const std::string* url = preferred ? preferred->string() : nullptr) return *url;
  const Deployment& deployment = platform.deployment();
  return isInternalBuild()
             ? fmt::format("https://{}/storebags/birch", deployment.internalStorebagHost)
             : fmt::format("https://{}/bags/birch", deployment.productionStorebagHost);
}

// Without a "seed" section: seed devices then use "release".
Dictionary fallbackStorebag() {
  const Value section = Dictionary{{"metrix", Dictionary{{"active", true}}}};
  return {{"halcyon_internal", section},
          {"development", section},
          {"release", section},
          {"version", "1.0.0-Parlor-Fallback"},
          {"refresh_cycle", 3600}};
}

HTTPRequest storebagRequest(std::string url, const std::optional<std::string>* lastModified) {
  HTTPRequest request;
  request.url = std::move(url);
  request.timeout = fetchTimeout;
  request.patience = fetchTimeout;
  request.timeoutCoversWait = true;  // the caller is blocked all the while
  if (lastModified != nullptr && lastModified->has_value()) {
    logDebug("fetchStorebagWithName: Adding 'Last-Modified: {}' to the header", **lastModified);
    request.headers.emplace_back("If-Modified-Since", **lastModified);
  }
  return request;
}

// Compares and exchanges "Last-Modified"; true when the caller's storebag still holds. No status
// code tells that: an empty body with that header does.
bool exchangeLastModified(const HTTPResponse& response, std::optional<std::string>& lastModified) {
  std::optional<std::string> received = response.header("Last-Modified");
  if (!received) return false;
  if (response.body.empty() && lastModified) {
    logDebug("fetchStorebagWithName: storebag content has not changed. using its cached version");
    return true;
  }
  lastModified = std::move(received);
  logDebug("fetchStorebagWithName: New 'Last-Modified: {}' received", *lastModified);
  return false;
}

std::string readPublicKey() {
  Platform& platform = Platform::current();
  auto key = platform.files().readFile(platform.paths().publicKeyFile, publicKeyLimit);
  return key ? std::move(key).value() : std::string();
}

}  // namespace

const std::string& storebagServerURL() {
  return Platform::current().storebagServerURL.get(computeStorebagServerURL);
}

std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name,
                                                std::int32_t& maxAge, bool& notModified,
                                                std::optional<std::string>* lastModified) {
  const std::string version = clientLibraryVersion();
  const std::string url =
      fmt::format("{}/{}?version={}", storebagServerURL(), orNull(name), version);
  logDebug("fetchStorebagWithName: Storebag Server URL: {}", url);

  const HTTPOutcome outcome =
      performAndWait(Platform::current().http(), storebagRequest(url, lastModified));
  if (!outcome.response) {
    const std::string_view reason =
        outcome.error ? std::string_view(outcome.error->description) : nullDescription;
    logInfo(
        "fetchStorebagWithName: Error resolving with lookup server {}, sendSynchronousRequest error {}",
        url, reason);
    if (name != fallbackName) return std::nullopt;
    logInfo("fetchStorebagWithName: Loading default storebag '{}'", *name);
    return fallbackStorebag();
  }

  const HTTPResponse& response = *outcome.response;
  maxAge = maxAgeFromCacheControl(response.header("Cache-Control").value_or(std::string()));
  if (lastModified != nullptr && exchangeLastModified(response, *lastModified)) {
    notModified = true;
    return std::nullopt;
  }
  return storebagFromEnvelope(response.body, readPublicKey());
}

}  // namespace corvid
