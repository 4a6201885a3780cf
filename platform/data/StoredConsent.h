// The consent as the preferences keep it.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "base/Mutex.h"
#include "platform/Device.h"
#include "platform/Preferences.h"
#include "platform/Random.h"

namespace corvid {

inline constexpr std::string_view diagnosticsSuite = "com.halcyon.diagnostics";

// The answer is the boolean "SubmitDiagnostics" of suite "com.halcyon.diagnostics": only true is a
// yes. The two identifiers are UUIDs in the daemon's suite, made at first use; where they cannot be
// stored they last as long as the process.
//
// Threads: any.
class StoredConsent final : public Consent {
 public:
  StoredConsent(std::shared_ptr<Preferences> preferences, std::shared_ptr<Random> random)
      : _preferences(std::move(preferences)), _random(std::move(random)) {}

  Sourced<bool> diagnosticsSubmission() override;
  std::string getPersistentIdentifierForDNU(bool respectsConsent) override EXCLUDES(_mutex);

 private:
  const std::shared_ptr<Preferences> _preferences;
  const std::shared_ptr<Random> _random;
  Mutex _mutex;
  // Made and not stored: the one that overrides, the one that respects the consent.
  std::array<std::string, 2> _unstored GUARDED_BY(_mutex);
};

}  // namespace corvid
