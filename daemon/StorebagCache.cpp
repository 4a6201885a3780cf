#include "daemon/StorebagCache.h"

#include <cmath>
#include <utility>

#include "base/Log.h"
#include "config/Environment.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

double secondsNow() { return Platform::current().clock().now().asDouble(); }

}  // namespace

bool StorebagCache::answersWithoutFetch(const Record& record, std::int32_t clientType) {
  const double age = std::abs(secondsNow() - record.fetchTime);
  const bool successful = record.fetchState == FetchState::successful;
  if (successful && age < record.maxAge) {
    logDebug("storebagForSession: Cached storebag found for client type {}", clientType);
    return true;
  }
  if (!successful && age < secondsBetweenAttempts) {
    logInfo(
        "storebagForSession: Not fetching storebag for client type {} - must wait {} seconds between attempts",
        clientType, secondsBetweenAttempts);
    return true;
  }
  return false;
}

Result<std::optional<Dictionary>> StorebagCache::storebag(std::int32_t clientType) {
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  if (name) {
    const auto cached = _cachedStorebags.find(*name);
    if (cached != _cachedStorebags.end() && answersWithoutFetch(cached->second, clientType))
      return cached->second.data;
  }
  return fetchAndCacheStorebag(clientType, name);
}

std::optional<std::string> StorebagCache::version(std::int32_t clientType) const {
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  const auto cached = name ? _cachedStorebags.find(*name) : _cachedStorebags.end();
  return cached == _cachedStorebags.end() ? std::nullopt : cached->second.version;
}

Result<std::optional<Dictionary>> StorebagCache::fetchAndCacheStorebag(
    std::int32_t clientType, const std::optional<std::string>& name) {
  logDebug("fetchAndCacheStorebag: Fetching storebag for client type {}", clientType);
  const auto cached = name ? _cachedStorebags.find(*name) : _cachedStorebags.end();
  Record record = cached == _cachedStorebags.end() ? Record{} : cached->second;
  FetchedStorebag fetched = _fetch(clientType, record.lastModified);
  if (fetched.storebag && !fetched.version) return Failure{"the storebag has no version"};
  logDebug("fetchAndCacheStorebag: Storebag max age: {} seconds", fetched.maxAge);

  const bool successful = fetched.storebag || fetched.notModified;
  if (!successful)
    logError("fetchAndCacheStorebag: Unable to fetch storebag for client type {}", clientType);
  if (fetched.storebag) {
    record.data = std::move(fetched.storebag);
    record.version = std::move(fetched.version);
  }
  record.fetchTime = secondsNow();
  record.fetchState = successful ? FetchState::successful : FetchState::failure;
  record.maxAge = fetched.maxAge;
  if (fetched.lastModified) record.lastModified = std::move(fetched.lastModified);
  if (!name) return std::optional<Dictionary>();  // fetched for, but leaves no record
  return (_cachedStorebags[*name] = std::move(record)).data;
}

}  // namespace corvid
