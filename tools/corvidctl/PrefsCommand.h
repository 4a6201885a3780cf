// `corvidctl prefs`: the daemon's preferences, from outside.
#pragma once

#include <string>
#include <vector>

namespace corvid::ctl {

// `words`: get KEY, set KEY VALUE, delete KEY or list; the exit status. tools::InputError where
// they are none of these.
int runPrefsCommand(const std::string& root, const std::string& suite,
                    const std::vector<std::string>& words);

}  // namespace corvid::ctl
