#include "daemon/StatusReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "base/URL.h"
#include "config/Environment.h"
#include "platform/data/JSON.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

double secondsBetween(Clock::TimePoint earlier, Clock::TimePoint later) {
  return std::chrono::duration<double>(later - earlier).count();
}

template <class T>
Value orNone(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}

std::string_view stateOf(const StorebagStanding& storebag, double age) {
  if (storebag.isBeingFetched) return "fetching";
  if (storebag.isFallback) return "fallback";
  if (!storebag.version) return "failed";
  if (storebag.fault) return "stale";
  return age < storebag.maxAge ? "valid" : "expired";
}

Dictionary backendStatus(const CorvidBackend& backend) {
  const CorvidBackend::Standing standing = backend.standing();
  const Balance balance = backend.account().balance();
  const auto entry = backend.entry();
  const std::uint64_t followed = backend.followed();
  return {
      {"name", backend.name()},
      {"state", wordOf(standing.state)},
      {"reason", wordOf(standing.reason)},
      {"detail", followed ? Value(fmt::format("{}", followed)) : Value()},
      {"entry", entry ? Value(static_cast<std::int64_t>(*entry)) : Value()},
      {"held", static_cast<std::int64_t>(balance.held)},
      {"heldBytes", static_cast<std::int64_t>(backend.heldBytes())},
      {"ledger", balance.toDictionary()},
  };
}

// Clients name themselves as they like; of what is too long for a name its beginning is shown.
Value textOrNone(const Dictionary* info, std::string_view key) {
  constexpr std::size_t mostBytes = 1024;
  const std::string* const text = info ? stringAt(*info, key) : nullptr;
  return text ? Value(replacingInvalidUTF8(std::string_view(*text).substr(0, mostBytes))) : Value();
}

}  // namespace

Dictionary storebagStatus(const std::string& name, const StorebagStanding& storebag, double now,
                          double secondsBetweenAttempts) {
  const double age = storebag.validSince ? std::abs(now - *storebag.validSince) : 0;
  const bool isKept = storebag.validSince && !storebag.isFallback;
  const double pause = storebag.fault && !storebag.isFallback && !storebag.refreshIsWished
                           ? secondsBetweenAttempts - std::abs(now - storebag.lastAttempt)
                           : 0;
  Value error;
  if (storebag.fault)
    error = storebag.fault->detail.empty()
                ? std::string(wordOf(storebag.fault->reason))
                : fmt::format("{}: {}", wordOf(storebag.fault->reason),
                              replacingInvalidUTF8(storebag.fault->detail));
  return {
      {"name", name},
      {"url", storebag.url.empty() ? Value() : Value(storebag.url)},
      {"state", stateOf(storebag, age)},
      {"version", orNone(storebag.version)},
      {"keyID", storebag.key ? Value(fmt::format("{:016x}", *storebag.key)) : Value()},
      {"ageSeconds", isKept ? Value(age) : Value()},
      {"expiresInSeconds",
       storebag.validSince ? Value(std::max(storebag.maxAge - age, 0.0)) : Value()},
      {"nextAttemptInSeconds", std::max(pause, 0.0)},
      {"lastError", std::move(error)},
  };
}

Array hostStatus(const std::map<std::string, Ledger::Host>& hosts,
                 const std::map<std::string, HTTPClient::Load>& loads, Clock::TimePoint now) {
  std::map<std::string, HTTPClient::Load> loadOf;
  for (const auto& [authority, load] : loads) loadOf[hostAndPort("https://" + authority)] = load;
  Array result;
  for (const auto& [name, host] : hosts) {
    const HTTPClient::Load load = loadOf[name];
    Value failure;
    if (host.lastFailure)
      failure = Dictionary{{"secondsAgo", secondsBetween(*host.lastFailure, now)},
                           {"what", host.failure}};
    result.push_back(Dictionary{
        {"host", name},
        {"underWay", static_cast<std::int64_t>(load.underWay)},
        {"waiting", static_cast<std::int64_t>(load.waiting)},
        {"delivered", static_cast<std::int64_t>(host.delivered)},
        {"failed", static_cast<std::int64_t>(host.failed)},
        {"lastSuccessSecondsAgo",
         host.lastSuccess ? Value(secondsBetween(*host.lastSuccess, now)) : Value()},
        {"lastFailure", std::move(failure)},
    });
  }
  return result;
}

Dictionary sessionStatus(const CorviddSession& session) {
  const auto info = session.sessionInfo();
  const auto userInfo = session.userInfo();
  const auto clientType = info ? integerAt(*info, kCorvidSessionInfoClientType) : std::nullopt;
  const auto silence = session.silence();
  const std::uint64_t parent = session.parentNumber();
  Array backends;
  if (const auto all = session.backends())
    all->each([&](CorvidBackend& backend) { backends.push_back(backendStatus(backend)); });
  return {
      {"session", static_cast<std::int64_t>(session.number())},
      {"pid", std::int64_t{session.peer().process}},
      {"uid", std::int64_t{session.user()}},
      {"unit", session.peer().unit.empty() ? Value() : Value(session.peer().unit)},
      {"clientType", orNone(clientType)},
      {"clientTag",
       clientType ? Value(clientTagForClientType(int32At(*info, kCorvidSessionInfoClientType)))
                  : Value()},
      {"sessionID", std::int64_t{session.sessionID()}},
      {"clientName", textOrNone(userInfo.get(), kCorvidUserInfoClientName)},
      {"serviceName", textOrNone(userInfo.get(), kCorvidUserInfoServiceName)},
      {"level", std::int64_t{session.getSessionHierarchy()}},
      {"parent", parent ? Value(static_cast<std::int64_t>(parent)) : Value()},
      {"aggregates", session.hasAggregator()},
      {"reason", silence ? Value(wordOf(*silence)) : Value()},
      {"storebagVersion", orNone(session.storebagVersion())},
      {"backends", std::move(backends)},
  };
}

std::string statusLine(std::size_t sessions, std::uint64_t held,
                       const std::map<std::string, StorebagStanding>& storebags) {
  std::string inForce;
  for (const auto& [name, storebag] : storebags)
    if (storebag.version)
      inForce += fmt::format("{}storebag {} {}", inForce.empty() ? "" : ", ", name,
                             replacingInvalidUTF8(*storebag.version));
  return fmt::format("{} sessions, {} events held, {}", sessions, held,
                     inForce.empty() ? "no storebag" : inForce);
}

std::string jsonOf(const Dictionary& object) {
  return writeJSON(object).value_or("{\"error\":\"what should stand here cannot be written\"}");
}

}  // namespace corvid
