// The daemon's life from its first step to its last.
#pragma once

#include "daemon/Options.h"
#include "platform/Paths.h"

namespace corvid {

// Where everything lies by the options: below their root, made absolute.
Paths pathsFor(const Options& options);

// Runs the daemon on the calling thread, which must be the only one of the process, and returns the
// exit status: 0 after an idle exit or an ordered stop, 1 when the service socket cannot be had, -1
// when the sandbox cannot be entered. What failed is in the log.
int runDaemon(const Options& options);

}  // namespace corvid
