// `corvidctl dashboard`: one packet to a dashboard server, without the daemon.
#pragma once

#include <string>
#include <vector>

namespace corvid::ctl {

// send --ip IP --port PORT …: prints the packet's log line, waits, says what became of it. 0 where
// it was acknowledged, 2 where it was not.
int runDashboardCommand(const std::vector<std::string>& arguments);

}  // namespace corvid::ctl
