// Who would answer at the machine's own control socket.
#pragma once

namespace corvid::ctl {

// Whether the system manager holds the daemon's sockets and the daemon does not run, so that a
// connection would start it. False where there is no such manager to ask.
bool connectionWouldStartDaemon();

}  // namespace corvid::ctl
