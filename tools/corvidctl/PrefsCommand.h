// `corvidctl prefs`: the daemon's preferences, from outside.
#pragma once

#include <string>
#include <vector>

namespace corvid::ctl {

// get KEY, set KEY VALUE, delete KEY, list; the exit status.
int runPrefsCommand(const std::string& root, const std::vector<std::string>& arguments);

}  // namespace corvid::ctl
