#include "config/Identifiers.h"

#include <string_view>
#include <utility>

#include "base/Log.h"
#include "base/Mutex.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

constexpr std::string_view keyPrefix = "uuid:";

std::optional<std::string> storedIdentifier(const std::string& key) {
  return asText(pointerTo(Platform::current().preferences().value(corvidSuite, key)));
}

std::size_t costOfIdentifier(const std::string& key) {
  constexpr std::size_t besidesTheKey = 96;  // the identifier, and what a property list puts around
  return key.size() + besidesTheKey;
}

bool fits(const std::string& newKey, std::size_t bytesKept) {
  return bytesKept + costOfIdentifier(newKey) <= keptIdentifierBytes;
}

bool store(const std::string& key, const std::string& identifier) {
  Preferences& preferences = Platform::current().preferences();
  std::size_t bytes = 0;
  for (const std::string& kept : preferences.keys(corvidSuite))
    if (kept.starts_with(keyPrefix)) bytes += costOfIdentifier(kept);
  return fits(key, bytes) && preferences.setValue(corvidSuite, key, identifier);
}

// False where too many are kept.
bool keep(const std::string& key, const std::string& identifier, Dictionary& unstored) {
  std::size_t bytes = 0;
  for (const Dictionary::Entry& kept : unstored) bytes += costOfIdentifier(kept.key);
  if (!fits(key, bytes)) return false;
  unstored.set(key, identifier);
  return true;
}

std::string findOrMakeIdentifier(const std::string& key) {
  if (auto stored = storedIdentifier(key)) return *std::move(stored);
  Platform& platform = Platform::current();
  UnstoredIdentifiers& unstored = platform.unstoredIdentifiers;
  // Between the look for an identifier and its making, so that two sessions make only one.
  MutexLock lock(unstored.mutex);
  if (auto stored = storedIdentifier(key)) return *std::move(stored);
  const std::string* const kept = stringAt(unstored.byKey, key);
  std::string identifier = kept ? *kept : uuidText(platform.random().uuid());
  if (store(key, identifier))
    unstored.byKey.erase(key);
  else if (!kept && keep(key, identifier, unstored.byKey))
    logWarning(
        "findOrMakeIdentifier: The identifier of {} cannot be stored; it holds until corvidd ends",
        key);
  else if (!kept)
    logWarning("findOrMakeIdentifier: Too many identifiers are kept; that of {} is not", key);
  return identifier;
}

std::string lowerCasedAt(const Dictionary* dictionary, std::string_view key) {
  const std::string* text = dictionary ? stringAt(*dictionary, key) : nullptr;
  return text ? lowerCased(*text) : std::string();
}

}  // namespace

std::string getPersistentIdentifierForCustomClientIDSuffix(
    const std::optional<std::string>& first, const std::optional<std::string>& second) {
  const std::string key =
      fmt::format("uuid:{}:{}", first.value_or(std::string()), second.value_or(std::string()));
  const std::string identifier = findOrMakeIdentifier(key);
  logInfo("getPersistentIdentifierForCustomClientIDSuffix: The value for {}: {}", key, identifier);
  return identifier;
}

std::string clientKey(const Dictionary* userInfo) {
  return fmt::format("{}:{}", lowerCasedAt(userInfo, kCorvidUserInfoClientName),
                     lowerCasedAt(userInfo, kCorvidUserInfoServiceName));
}

}  // namespace corvid
