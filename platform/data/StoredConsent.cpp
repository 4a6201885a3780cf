#include "platform/data/StoredConsent.h"

#include <string_view>
#include <utility>

namespace corvid {

namespace {

constexpr std::string_view diagnosticsSuite = "com.halcyon.diagnostics";
constexpr std::string_view submitDiagnosticsKey = "SubmitDiagnostics";
constexpr std::string_view respectingKey = "identifierRespectingConsent";
constexpr std::string_view overridingKey = "identifierOverridingConsent";

}  // namespace

StoredConsent::StoredConsent(std::shared_ptr<Preferences> preferences,
                             std::shared_ptr<Random> random)
    : _preferences(std::move(preferences)), _random(std::move(random)) {}

bool StoredConsent::diagnosticsSubmissionAllowed() {
  const auto answer = _preferences->value(diagnosticsSuite, submitDiagnosticsKey);
  return answer && answer->boolean().value_or(false);
}

std::string StoredConsent::getPersistentIdentifierForDNU(bool respectsConsent) {
  const std::string_view key = respectsConsent ? respectingKey : overridingKey;
  const MutexLock lock(_mutex);
  const auto stored = _preferences->value(corvidSuite, key);
  if (stored && stored->string()) return *stored->string();
  std::string identifier = uuidText(_random->uuid());
  _preferences->setValue(corvidSuite, key, identifier);
  return identifier;
}

}  // namespace corvid
