// The user's consent to diagnostics submission, and the identifiers that go with it. Any thread.
#pragma once

#include <string>

namespace corvid {

class Consent {
 public:
  virtual ~Consent() = default;
  // Whether the user lets diagnostics leave the device. Without a recorded answer: no.
  virtual bool diagnosticsSubmissionAllowed() = 0;
  // A stable identifier of this device: with true the one that respects the consent, with false
  // the one that overrides it.
  virtual std::string getPersistentIdentifierForDNU(bool respectsConsent) = 0;
};

}  // namespace corvid
