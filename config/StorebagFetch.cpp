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
#include "platform/Platform.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

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

std::string readPublicKey() {
  Platform& platform = Platform::current();
  const std::string& path = platform.paths().publicKeyFile;
  auto content = platform.files().readFile(path, publicKeyLimit);
  if (!content) return {};
  const auto key = RSAPublicKey::fromDER(content.value());
  if (!key && key.failure().code == EKEYREJECTED)
    logError("fetchStorebagWithName: {} is {}; no storebag is accepted with it", path,
             key.failure().message);
  return std::move(content).value();
}

const Dictionary* dictionaryIn(const Result<Value>& parsed) {
  return parsed ? parsed.value().dictionary() : nullptr;
}

bool verifyStorebagSignature(const RSAPublicKey& key, std::string_view bag,
                             std::string_view signature) {
  return key.verifies(sha1(bag), signature);
}

}  // namespace

std::string storebagServerURL() {
  return Platform::current().storebagServerURL.get(computeStorebagServerURL);
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
  const HTTPOutcome outcome =
      performAndWait(Platform::current().http(), storebagRequest(url, lastModified));
  if (!outcome.response) {
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

  const HTTPResponse& response = *outcome.response;
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
  OpenedEnvelope opened = openEnvelope(response.body, readPublicKey());
  if (!opened.storebag)
    fetched.fault = {opened.reason, fmt::format("status {}: {}", response.status, opened.lack)};
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

OpenedEnvelope openEnvelope(std::string_view envelope, std::string_view publicKeyDER) {
  const auto malformed = [](std::string_view lack) {
    return OpenedEnvelope{.reason = Reason::storebagMalformed, .lack = lack};
  };
  const auto unverified = [](std::string_view lack) {
    return OpenedEnvelope{.reason = Reason::storebagUnverified, .lack = lack};
  };
  const Result<Value> parsed = parsePropertyList(envelope);
  if (!parsed)
    logError("fetchStorebagWithName: propertyListWithData error {}", parsed.failure().message);

  const Dictionary* fields = dictionaryIn(parsed);
  const std::string* signatureText = fields ? stringAt(*fields, "signature") : nullptr;
  if (signatureText == nullptr) {
    logError("fetchStorebagWithName: Signature is missing");
    if (!fields) return malformed("the body is no dictionary");
    return fields->contains("bag") ? unverified("it has no signature")
                                   : malformed("it lacks \"bag\"");
  }
  const Result<RSAPublicKey> key = RSAPublicKey::fromDER(publicKeyDER);
  if (!key) return unverified("this device has no usable key");
  const auto signature = base64DecodeIgnoringUnknownCharacters(*signatureText);
  if (!signature) return unverified("its signature is no Base64");
  const std::string* bagText = stringAt(*fields, "bag");
  if (bagText == nullptr) return malformed("it lacks \"bag\"");
  const auto bag = base64DecodeIgnoringUnknownCharacters(*bagText);
  if (!bag) return malformed("its \"bag\" is no Base64");

  if (!verifyStorebagSignature(key.value(), *bag, *signature)) {
    logError("fetchStorebagWithName: Signature can not be verified, {:#018x}",
             key.value().fingerprint());
    return unverified("no key of this device verifies its signature");
  }
  const Result<Value> storebag = parsePropertyList(*bag);
  const Dictionary* content = dictionaryIn(storebag);
  if (!content) return malformed("its \"bag\" is no dictionary");
  return {.storebag = *content, .key = key.value().fingerprint()};
}

}  // namespace corvid
