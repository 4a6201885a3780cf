// The consent as the user's answer in a preference suite, and identifiers kept in the daemon's own.
#pragma once

#include <memory>

#include "platform/Consent.h"
#include "platform/Preferences.h"
#include "platform/Random.h"
#include "platform/base/Mutex.h"

namespace corvid {

class StoredConsent final : public Consent {
 public:
  StoredConsent(std::shared_ptr<Preferences> preferences, std::shared_ptr<Random> random);

  bool diagnosticsSubmissionAllowed() override;
  // Made at first use. Where it cannot be stored (logged by the preferences) the identifier is good
  // for this call only.
  std::string getPersistentIdentifierForDNU(bool respectsConsent) override EXCLUDES(_mutex);

 private:
  const std::shared_ptr<Preferences> _preferences;
  const std::shared_ptr<Random> _random;
  Mutex _mutex;  // two sessions must not make the same identifier twice
};

}  // namespace corvid
