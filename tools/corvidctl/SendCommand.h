// `corvidctl send`, `states` and `upload`: one session for a person.
#pragma once

#include <string>
#include <vector>

namespace corvid::ctl {

// Each describes a session and gives the exit status of the program; what went wrong on the way is
// a UsageError or a CallError.

// Sends one event and flushes.
int runSendCommand(const std::string& root, const std::vector<std::string>& arguments);

// Says which backends report.
int runStatesCommand(const std::string& root, const std::vector<std::string>& arguments);

// Uploads files, up to the first that fails.
int runUploadCommand(const std::string& root, const std::vector<std::string>& arguments);

}  // namespace corvid::ctl
