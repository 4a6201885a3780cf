// `corvidctl send` and `corvidctl states`: one session for a person.
#pragma once

#include <string>
#include <vector>

namespace corvid::ctl {

// Describes a session, sends one event and flushes unless the event is realtime. The exit status.
int runSendCommand(const std::string& root, const std::vector<std::string>& arguments);

// Describes a session and says which backends report. The exit status.
int runStatesCommand(const std::string& root, const std::vector<std::string>& arguments);

}  // namespace corvid::ctl
