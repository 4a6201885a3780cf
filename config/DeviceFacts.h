// What the device answers, for whoever looks into the daemon.
#pragma once

#include "base/Value.h"

namespace corvid {

// All that decides about reporting here, each a dictionary of "value" and "source": country,
// productFamily, hardwareType, productVersion, buildVersion, environment (texts), internal, consent
// (booleans), timeZoneOffset (seconds east of GMT, now). Both are null where nothing answers.
//
// Changes and logs nothing, and settles no answer that the process computes once; waits for no
// network and no client. Any thread; there must be a Platform.
Dictionary deviceFacts();

}  // namespace corvid
