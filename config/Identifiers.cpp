#include "config/Identifiers.h"

#include <charconv>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ActingUser.h"
#include "base/Log.h"
#include "base/Mutex.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

constexpr std::string_view keyPrefix = "uuid:";
// What belongs to whom stands beside the suite of the identifiers themselves.
constexpr std::string_view usesSuite = "com.halcyon.corvid.identifiers";
constexpr std::string_view usesKey = "Uses";

std::optional<std::string> storedIdentifier(const std::string& key) {
  return asText(pointerTo(Platform::current().preferences().value(corvidSuite, key)));
}

// "1000 uuid:name:service", of nobody who is known "- uuid:name:service".
std::string described(const RecentKeys::Use& use) {
  return use.user ? fmt::format("{} {}", *use.user, use.key) : fmt::format("- {}", use.key);
}

std::optional<RecentKeys::Use> useFrom(std::string_view text) {
  const std::size_t blank = text.find(' ');
  if (blank == text.npos) return std::nullopt;
  RecentKeys::Use use{std::nullopt, std::string(text.substr(blank + 1))};
  std::uint32_t user = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + blank, user);
  if (error == std::errc() && end == text.data() + blank) use.user = user;
  return use;
}

RecentKeys readUses(Preferences& preferences) {
  std::set<std::string> stored;
  for (std::string& key : preferences.keys(corvidSuite))
    if (key.starts_with(keyPrefix)) stored.insert(std::move(key));
  std::vector<RecentKeys::Use> known;
  std::set<std::string> unknown = stored;
  const auto value = preferences.value(usesSuite, usesKey);
  if (const Array* const texts = value ? value->array() : nullptr)
    for (const Value& text : *texts) {
      auto use = text.string() ? useFrom(*text.string()) : std::nullopt;
      if (!use || !stored.contains(use->key)) continue;
      unknown.erase(use->key);
      known.push_back(*std::move(use));
    }
  RecentKeys uses;
  for (const std::string& key : unknown) uses.use(std::nullopt, key);
  for (const RecentKeys::Use& use : known) uses.use(use.user, use.key);
  return uses;
}

// Notes that the user has begun to use a stored identifier, for which others may have to go.
void noteNewUse(Preferences& preferences, RecentKeys& uses, User user, const std::string& key) {
  uses.use(user, key);
  for (const std::string& gone : uses.shrinkTo(keptIdentifierBytes))
    preferences.removeValue(corvidSuite, gone);
  Array texts;
  for (const RecentKeys::Use& use : uses.uses()) texts.push_back(described(use));
  preferences.setValue(usesSuite, usesKey, std::move(texts));
}

// Keeps it until the process ends, or until it can be stored after all.
void keepUnstored(KnownIdentifiers& known, User user, const std::string& key,
                  const std::string& identifier) REQUIRES(known.mutex) {
  known.unstoredByKey.set(key, identifier);
  known.unstored.use(user, key);
  for (const std::string& gone : known.unstored.shrinkTo(keptIdentifierBytes))
    known.unstoredByKey.erase(gone);
}

std::string findOrMakeIdentifier(const std::string& key) {
  Platform& platform = Platform::current();
  Preferences& preferences = platform.preferences();
  const User user = actingUser();
  KnownIdentifiers& known = platform.identifiers;
  auto stored = storedIdentifier(key);
  // Between the look for an identifier and its making, so that two sessions make only one.
  const MutexLock lock(known.mutex);
  if (!known.stored) known.stored = readUses(preferences);
  // Each change of what is stored takes the disk's time, during which others wait.
  const auto mayStore = [&]() REQUIRES(known.mutex) {
    const auto now = platform.clock().steadyNow();
    return known.pace.next(user, now) == now;
  };

  if (!stored) stored = storedIdentifier(key);
  if (stored) {
    if (known.stored->has(user, key))
      known.stored->use(user, key);
    else if (mayStore())
      noteNewUse(preferences, *known.stored, user, key);
    return *std::move(stored);
  }
  const std::string* const kept = stringAt(known.unstoredByKey, key);
  std::string identifier = kept ? *kept : uuidText(platform.random().uuid());
  const bool isTooLarge = RecentKeys::costOf(key) > keptIdentifierBytes;
  const bool mayBeStored = !isTooLarge && mayStore();
  if (mayBeStored && preferences.setValue(corvidSuite, key, identifier)) {
    known.unstoredByKey.erase(key);
    known.unstored.forget(key);
    noteNewUse(preferences, *known.stored, user, key);
    return identifier;
  }
  if (isTooLarge)
    logWarning("findOrMakeIdentifier: The name is too long for its identifier to be kept: {}", key);
  else if (mayBeStored && !kept)
    logWarning(
        "findOrMakeIdentifier: The identifier of {} cannot be stored; it holds until corvidd ends",
        key);
  if (!isTooLarge) keepUnstored(known, user, key, identifier);
  return identifier;
}

// So that where one part ends and the next begins is never in doubt.
std::string escaped(std::string_view part) {
  std::string text;
  for (const char c : part) {
    if (c == ':' || c == '\\') text.push_back('\\');
    text.push_back(c);
  }
  return text;
}

std::string lowerCasedAt(const Dictionary* dictionary, std::string_view key) {
  const std::string* text = dictionary ? stringAt(*dictionary, key) : nullptr;
  return text ? lowerCased(*text) : std::string();
}

}  // namespace

std::string getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& first, const std::optional<std::string>& second) {
  const std::string key =
      fmt::format("uuid:{}:{}", escaped(first.value_or("")), escaped(second.value_or("")));
  const std::string identifier = findOrMakeIdentifier(key);
  logInfo("getPersistentIdentifierForCustomClientIDSuffix: The value for {}: {}", key, identifier);
  return identifier;
}

std::string clientKey(const Dictionary* userInfo) {
  return fmt::format("{}:{}", lowerCasedAt(userInfo, kCorvidUserInfoClientName),
                     lowerCasedAt(userInfo, kCorvidUserInfoServiceName));
}

}  // namespace corvid
