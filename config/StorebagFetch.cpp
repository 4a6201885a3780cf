#include "config/StorebagFetch.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "config/DeviceInformation.h"
#include "config/PublicKeys.h"
#include "platform/Platform.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

constexpr std::chrono::seconds fetchTimeout{15};
// The one storebag whose clients go on reporting when no server can be reached.
constexpr std::string_view fallbackName = "parlor";

std::string computeStorebagServerURL() {
  Platform& platform = Platform::current();
  if (auto url =
          asText(pointerTo(platform.preferences().value(corvidSuite, "corvid_storebag_url"))))
    return *std::move(url);
  const auto deployment = platform.deployment();
  return isInternalBuild()
             ? fmt::format("https://{}/storebags/birch", deployment->internalStorebagHost)
             : fmt::format("https://{}/bags/birch", deployment->productionStorebagHost);
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

// What is wrong with a key that is too weak, or with a further one, is told at each fetch.
std::vector<RSAPublicKey> publicKeys() {
  Platform& platform = Platform::current();
  PublicKeys keys = readPublicKeys(platform.files(), platform.paths());
  for (const PublicKeys::Fault& fault : keys.faults) {
    if (fault.path != keys.mainFile) {
      logError("fetchStorebagWithName: {} is passed over: {}", fault.path, fault.what);
    } else if (fault.code == EKEYREJECTED) {
      const auto why = loggingReason(Reason::storebagUnverified);
      logError("fetchStorebagWithName: {} is {}; no storebag is accepted with it", fault.path,
               fault.what);
    }
  }
  return std::move(keys.usable);
}

}  // namespace

std::string storebagServerURL() {
  return Platform::current().storebagServerURL.get(computeStorebagServerURL);
}

EnvelopeRules rulesOfDeployment() {
  return {.requiresSHA256 = Platform::current().deployment()->requireSHA256Signature};
}

std::string storebagURL(const std::optional<std::string>& name) {
  return fmt::format("{}/{}?version={}", storebagServerURL(), orNull(name), clientLibraryVersion());
}

HTTPRequest storebagRequest(std::string url, const std::optional<std::string>& lastModified) {
  HTTPRequest request;
  request.user = std::nullopt;  // whoever asked first, the storebag is for all
  request.url = std::move(url);
  request.timeout = fetchTimeout;
  request.patience = fetchTimeout;
  request.timeoutCoversWait = true;  // the caller is blocked all the while
  if (lastModified) {
    logDebug("fetchStorebagWithName: Adding 'Last-Modified: {}' to the header", *lastModified);
    request.headers.emplace_back("If-Modified-Since", *lastModified);
  }
  return request;
}

FetchedStorebag fetchStorebagWithName(const std::optional<std::string>& name,
                                      const std::optional<std::string>& lastModified) {
  const std::string url = storebagURL(name);
  logDebug("fetchStorebagWithName: Storebag Server URL: {}", url);

  FetchedStorebag fetched;
  fetched.url = url;
  HTTPOutcome outcome =
      performAndWait(Platform::current().http(), storebagRequest(url, lastModified));
  if (!outcome.response) {
    const auto why = loggingReason(Reason::storebagUnreachable);
    const std::string_view reason =
        outcome.error ? std::string_view(outcome.error->description) : nullDescription;
    logInfo(
        "fetchStorebagWithName: Error resolving with lookup server {}, sendSynchronousRequest error {}",
        url, reason);
    fetched.fault = {Reason::storebagUnreachable, std::string(reason)};
    if (name != fallbackName) return fetched;
    logInfo("fetchStorebagWithName: Loading default storebag '{}'", *name);
    fetched.storebag = fallbackStorebag();
    return fetched;
  }

  HTTPResponse& response = *outcome.response;
  fetched.maxAge = maxAgeFromCacheControl(response.header("Cache-Control").value_or(std::string()));
  if (std::optional<std::string> received = response.header("Last-Modified")) {
    // No status code tells that the caller's storebag still holds: an empty body does.
    if (response.body.empty() && lastModified) {
      logDebug("fetchStorebagWithName: storebag content has not changed. using its cached version");
      fetched.notModified = true;
      return fetched;
    }
    logDebug("fetchStorebagWithName: New 'Last-Modified: {}' received", *received);
    fetched.lastModified = std::move(received);
  }
  OpenedEnvelope opened = openEnvelope(response.body, publicKeys(), rulesOfDeployment());
  logRefusal(opened);
  if (!opened.storebag)
    fetched.fault = {opened.reason, fmt::format("status {}: {}", response.status, opened.lack)};
  else if (Platform::current().deployment()->keepStorebags)
    fetched.envelope = std::move(response.body);
  fetched.storebag = std::move(opened.storebag);
  fetched.key = opened.key;
  return fetched;
}

std::int32_t maxAgeFromCacheControl(std::string_view header) {
  using Limits = std::numeric_limits<std::int32_t>;
  constexpr std::string_view separators = "= ";
  bool found = false;
  for (;;) {
    const std::size_t end = header.find_first_of(separators);
    const std::string_view component = header.substr(0, end);
    if (found)
      return static_cast<std::int32_t>(
          std::clamp<std::int64_t>(integerFromText(component), Limits::min(), Limits::max()));
    if (end == std::string_view::npos) return defaultMaxAge;
    found = component == "max-age";
    header.remove_prefix(end + 1);
  }
}

}  // namespace corvid
