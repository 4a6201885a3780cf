// The replicated log that a program was told of.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// `url`: "amqp://[USER:PASSWORD@]HOST[:PORT][,HOST[:PORT]]...[/VHOST]". std::invalid_argument where
// it is none. Returns before the log has answered.
std::unique_ptr<LogPublisher> makeLog(const std::string& url);

// A reader of these streams; std::runtime_error where the log does not answer.
std::unique_ptr<LogReader> makeLogReader(const std::string& url,
                                         const std::vector<std::string>& streams);

}  // namespace corvid::fleet
