#include "daemon/StorebagCache.h"

#include <cmath>
#include <utility>

#include "base/Log.h"
#include "config/Environment.h"
#include "config/KeptStorebags.h"
#include "platform/Platform.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

double secondsNow() { return Platform::current().clock().now().asDouble(); }

double ageOf(double time) { return std::abs(secondsNow() - time); }

// A storebag that no server has sent.
bool isFallback(const FetchedStorebag& fetched) {
  return fetched.storebag && fetched.version && fetched.fault;
}

bool keepsStorebags() { return Platform::current().deployment()->keepStorebags; }

std::int32_t withJitter(std::int32_t age) {
  Platform& platform = Platform::current();
  const double jitter = platform.deployment()->refreshJitter;
  if (jitter <= 0 || age <= 0) return age;
  return static_cast<std::int32_t>(age * (1 - jitter * platform.random().uniform()));
}

bool isPause(double failureTime) {
  return ageOf(failureTime) < StorebagCache::secondsBetweenAttempts;
}

}  // namespace

StorebagCache::Standing StorebagCache::standing(std::int32_t clientType, std::uint32_t user) const {
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  if (!name) {
    const auto failed = _namelessFailures.find(user);
    const bool pauses = failed != _namelessFailures.end() && pausesFor(failed->second);
    return pauses ? Standing::pausing : Standing::toBeFetched;
  }
  const auto cached = _cachedStorebags.find(*name);
  if (cached == _cachedStorebags.end() || _board->refreshIsWished(*name))
    return Standing::toBeFetched;
  const Record& record = cached->second;
  if (record.fetchState == FetchState::failure)
    return isPause(record.fetchTime) ? Standing::pausing : Standing::toBeFetched;
  return ageOf(record.fetchTime) < record.maxAge ? Standing::fresh : Standing::toBeFetched;
}

Result<std::optional<Dictionary>> StorebagCache::storebag(std::int32_t clientType,
                                                          std::uint32_t user) {
  takeKept(clientType);
  switch (standing(clientType, user)) {
    case Standing::fresh:
      logDebug("storebagForSession: Cached storebag found for client type {}", clientType);
      break;
    case Standing::pausing: {
      const auto why = loggingReason(whyNone(clientType));
      logInfo(
          "storebagForSession: Not fetching storebag for client type {} - must wait {} seconds between attempts",
          clientType, secondsBetweenAttempts);
      break;
    }
    case Standing::toBeFetched: return fetchAndCacheStorebag(clientType, user);
  }
  const auto name = storebagNameForClientType(clientType);
  return name ? _cachedStorebags.at(*name).data : std::nullopt;
}

std::optional<std::string> StorebagCache::version(std::int32_t clientType) const {
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  const auto cached = name ? _cachedStorebags.find(*name) : _cachedStorebags.end();
  return cached == _cachedStorebags.end() ? std::nullopt : cached->second.version;
}

Reason StorebagCache::whyNone(std::int32_t clientType) const {
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  if (!name) return Reason::unknownClientType;
  const std::optional<StorebagFault> fault = _board->of(*name).fault;
  // A server that calls unchanged what nobody has sends no storebag.
  return fault ? fault->reason : Reason::storebagMalformed;
}

Result<std::optional<Dictionary>> StorebagCache::fetchAndCacheStorebag(std::int32_t clientType,
                                                                       std::uint32_t user) {
  logDebug("fetchAndCacheStorebag: Fetching storebag for client type {}", clientType);
  const std::optional<std::string> name = storebagNameForClientType(clientType);
  const auto cached = name ? _cachedStorebags.find(*name) : _cachedStorebags.end();
  Record record = cached == _cachedStorebags.end() ? Record{} : cached->second;
  if (name) {
    _board->refreshBegins(*name);
    StorebagStanding standing = _board->of(*name);
    standing.isBeingFetched = true;
    _board->set(*name, std::move(standing));
  }
  FetchedStorebag fetched = _fetch(clientType, record.lastModified);
  if (isFallback(fetched) && record.data && !record.isFallback && keepsStorebags()) {
    fetched.storebag.reset();  // the kept one goes on
    fetched.version.reset();
  }
  fetched.maxAge = withJitter(fetched.maxAge);
  const bool isUsable = fetched.storebag && fetched.version;
  const double time = secondsNow();
  if (name) {
    showOnBoard(*name, fetched, isUsable || fetched.notModified, isUsable, time);
    if (isUsable || (fetched.notModified && record.data)) keepStorebag(*name, fetched, time);
  }
  if (fetched.storebag && !fetched.version) return Failure{"the storebag has no version"};
  logDebug("fetchAndCacheStorebag: Storebag max age: {} seconds", fetched.maxAge);

  const bool successful = fetched.storebag || fetched.notModified;
  const Reason reason = !name           ? Reason::unknownClientType
                        : fetched.fault ? fetched.fault->reason
                                        : Reason::storebagMalformed;
  const auto why = loggingReason(reason);
  if (!successful)
    logError("fetchAndCacheStorebag: Unable to fetch storebag for client type {}", clientType);
  if (fetched.storebag) {
    record.isFallback = isFallback(fetched);
    record.data = std::move(fetched.storebag);
    record.version = std::move(fetched.version);
  }
  record.fetchTime = time;
  record.fetchState = successful ? FetchState::successful : FetchState::failure;
  record.maxAge = fetched.maxAge;
  if (fetched.lastModified) record.lastModified = std::move(fetched.lastModified);
  // "Unchanged" says nothing where nothing is kept: the next attempt asks for the whole.
  if (fetched.notModified && !record.data) record.lastModified.reset();
  if (!name) {  // fetched for, but leaves no record
    if (!successful) noteNamelessFailure(user);
    return std::optional<Dictionary>();
  }
  return (_cachedStorebags[*name] = std::move(record)).data;
}

void StorebagCache::takeKept(std::int32_t clientType) {
  const auto name = storebagNameForClientType(clientType);
  if (!name || _cachedStorebags.contains(*name)) return;
  std::optional<KeptStorebag> kept = keptStorebag(clientType);
  if (!kept) return;
  FetchedStorebag& fetched = kept->fetched;
  showOnBoard(*name, fetched, true, true, kept->fetchTime);
  _cachedStorebags[*name] = {.data = std::move(fetched.storebag),
                             .version = std::move(fetched.version),
                             .fetchTime = kept->fetchTime,
                             .fetchState = FetchState::successful,
                             .maxAge = fetched.maxAge,
                             .lastModified = std::move(fetched.lastModified),
                             .isFallback = false};
}

void StorebagCache::showOnBoard(const std::string& name, const FetchedStorebag& fetched,
                                bool successful, bool replaced, double time) const {
  StorebagStanding standing = _board->of(name);
  standing.isBeingFetched = false;
  standing.url = fetched.url;
  standing.fault = fetched.fault;
  standing.lastAttempt = time;
  if (successful) {
    standing.validSince = standing.lastAttempt;
    standing.maxAge = fetched.maxAge;
  }
  if (replaced) {
    standing.isFallback = isFallback(fetched);
    standing.version = fetched.version;
    standing.key = fetched.key;
    standing.content = std::make_shared<const Dictionary>(*fetched.storebag);
  }
  _board->set(name, std::move(standing));
}

bool StorebagCache::pausesFor(const NamelessFailure& failure) const {
  return failure.timesForgotten == _board->timesForgotten() && isPause(failure.time);
}

void StorebagCache::noteNamelessFailure(std::uint32_t user) {
  std::erase_if(_namelessFailures, [&](const auto& entry) { return !pausesFor(entry.second); });
  _namelessFailures[user] = {secondsNow(), _board->timesForgotten()};
}

}  // namespace corvid
