// Reasons beside log lines.
#pragma once

#include "base/LogFields.h"
#include "protocol/Reason.h"

namespace corvid {

// The lines that its thread writes while it lives are written for this reason:
// `const auto why = loggingReason(Reason::noConsent);`
[[nodiscard]] inline LoggingReason loggingReason(Reason reason) {
  const ReasonText& text = textOf(reason);
  return {text.word, text.messageID};
}

}  // namespace corvid
