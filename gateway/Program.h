// What the program does from its command line to its exit status.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Makes the publisher of the log at a URL. Throws std::exception where the URL is no log's.
using MakeLog = std::function<std::unique_ptr<LogPublisher>(const std::string& url)>;

// SIGTERM and SIGINT: takes no more connections, finishes what was read, returns 0; a second one,
// or
// --stop-timeout, ends the wait, and then 1 is returned. SIGHUP: reads the files of settings and
// certificate again; where one is wrong, what was in force stays, and one error line says so.
int runGateway(std::vector<std::string> arguments, const MakeLog& makeLog);

}  // namespace corvid::fleet
