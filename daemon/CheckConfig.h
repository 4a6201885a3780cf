// What --check-config does.
#pragma once

#include "daemon/check/Findings.h"
#include "platform/Paths.h"

namespace corvid {

struct ConfigCheckOptions {
  bool asJSON = false;
  bool isOnline = false;  // asks the servers too
  // The daemon would enter its sandbox.
  bool entersSandbox = true;
};

// Reads every file that the daemon reads below its root, as the daemon would, and changes nothing.
// Where root asks, for the owner of the daemon's folder, else the user "corvidd", but with root's
// rights; others ask for themselves. Call it on the only thread of the process, which must have no
// Platform.
Findings checkConfig(const Paths& paths, const ConfigCheckOptions& options = {});

// The same, having become that user first. Prints the findings to standard output; 1 when any is
// wrong, else 0.
int printConfigCheck(const Paths& paths, const ConfigCheckOptions& options);

}  // namespace corvid
