// The agent's storebag cache: one record a client type name, with the rules for when to fetch.
#include <cmath>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "daemon/CorviddAgent.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// Keys of a cache record.
constexpr std::string_view storebagData = "StorebagData";                  // dictionary
constexpr std::string_view storebagVersion = "StorebagVersion";            // string
constexpr std::string_view storebagFetchTime = "StorebagFetchTime";        // date, of any attempt
constexpr std::string_view storebagFetchState = "StorebagFetchState";      // one of the two below
constexpr std::string_view storebagMaxAge = "StorebagMaxAge";              // integer, seconds
constexpr std::string_view storebagLastModified = "StorebagLastModified";  // string

constexpr std::string_view fetchSuccessful = "Fetch Successful";
constexpr std::string_view fetchFailure = "Fetch Failure";

std::int32_t clientTypeOf(const CorviddSession& session) {
  return int32At(session.sessionInfo(), kCorvidSessionInfoClientType);
}

double secondsNow() { return Platform::current().clock().now().asDouble(); }

std::optional<Dictionary> dataOf(const Dictionary& record) {
  const Dictionary* data = dictionaryAt(record, storebagData);
  return data ? std::optional(*data) : std::nullopt;
}

std::optional<std::string> textOf(const Dictionary& record, std::string_view key) {
  const std::string* text = stringAt(record, key);
  return text ? std::optional(*text) : std::nullopt;
}

// Whether the record is to be answered with as it stands. One without a finished attempt is not.
bool answersWithoutFetch(const Dictionary& record, std::int32_t clientType) {
  const Value* fetchTime = record.find(storebagFetchTime);
  if (!fetchTime) return false;
  const double age = std::abs(secondsNow() - fetchTime->date()->secondsSince1970);
  const bool successful = *stringAt(record, storebagFetchState) == fetchSuccessful;
  if (successful && age < int32At(record, storebagMaxAge)) {
    logDebug("storebagForSession: Cached storebag found for client type {}", clientType);
    return true;
  }
  if (!successful && age < CorviddAgent::secondsBetweenAttempts) {
    logInfo(
        "storebagForSession: Not fetching storebag for client type {} - must wait {} seconds between attempts",
        clientType, CorviddAgent::secondsBetweenAttempts);
    return true;
  }
  return false;
}

}  // namespace

std::optional<Dictionary> CorviddAgent::storebagForSession(CorviddSession& session) {
  const std::int32_t clientType = clientTypeOf(session);
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  logDebug("storebagForSession: Retrieving storebag for session {} with client type {}",
           session.sessionID(), clientType);

  const RecursiveLock lock(_mutex);
  if (name) {
    const auto cached = _cachedStorebags.find(*name);
    if (cached != _cachedStorebags.end() && answersWithoutFetch(cached->second, clientType))
      return dataOf(cached->second);
  }
  fetchAndCacheStorebag(clientType);
  return name ? dataOf(_cachedStorebags.at(*name)) : std::nullopt;
}

std::optional<std::string> CorviddAgent::storebagVersionForSession(CorviddSession& session) {
  const std::optional<std::string> name = storebagNameForClientType(clientTypeOf(session));
  if (!name) return std::nullopt;
  const RecursiveLock lock(_mutex);
  const auto cached = _cachedStorebags.find(*name);
  return cached == _cachedStorebags.end() ? std::nullopt : textOf(cached->second, storebagVersion);
}

void CorviddAgent::fetchAndCacheStorebag(std::int32_t clientType) {
  logDebug("fetchAndCacheStorebag: Fetching storebag for client type {}", clientType);
  // A client type without a name is fetched for, but leaves no record.
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  Dictionary unnamed;
  Dictionary& record = name ? _cachedStorebags[*name] : unnamed;

  std::int32_t maxAge = 0;
  std::optional<std::string> version;
  bool notModified = false;
  std::optional<std::string> lastModified = textOf(record, storebagLastModified);
  std::optional<Dictionary> storebag =
      _fetch(clientType, maxAge, version, notModified, &lastModified);
  const bool successful = storebag || notModified;
  logDebug("fetchAndCacheStorebag: Storebag max age: {} seconds", maxAge);

  if (storebag) {
    record.set(std::string(storebagData), std::move(*storebag));
    if (version) record.set(std::string(storebagVersion), std::move(*version));
  } else if (!notModified) {
    logError("fetchAndCacheStorebag: Unable to fetch storebag for client type {}", clientType);
  }
  record.set(std::string(storebagFetchTime), Date{secondsNow()});
  record.set(std::string(storebagFetchState), successful ? fetchSuccessful : fetchFailure);
  record.set(std::string(storebagMaxAge), maxAge);
  if (lastModified) record.set(std::string(storebagLastModified), std::move(*lastModified));
}

}  // namespace corvid
