#include "platform/data/StoredConsent.h"

namespace corvid {

Sourced<bool> StoredConsent::diagnosticsSubmission() {
  const std::optional<Value> answer = _preferences->value(diagnosticsSuite, "SubmitDiagnostics");
  if (answer && answer->boolean()) return {*answer->boolean(), "preference"};
  return {false, "default"};
}

std::string StoredConsent::getPersistentIdentifierForDNU(bool respectsConsent) {
  const std::string_view key =
      respectsConsent ? "identifierRespectingConsent" : "identifierOverridingConsent";
  const MutexLock lock(_mutex);
  if (const std::optional<Value> stored = _preferences->value(corvidSuite, key))
    if (const std::string* text = stored->string(); text && !text->empty()) return *text;
  std::string& identifier = _unstored[respectsConsent ? 1 : 0];
  if (identifier.empty()) identifier = uuidText(_random->uuid());
  if (!_preferences->setValue(corvidSuite, key, identifier)) return identifier;
  return std::exchange(identifier, {});
}

}  // namespace corvid
