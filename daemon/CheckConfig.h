// What --check-config does.
#pragma once

#include <string>
#include <vector>

#include "platform/Paths.h"

namespace corvid {

// What was found about one file or folder, as one line for people: its path, what is the matter and
// what to do.
struct ConfigFinding {
  // Right; to be known, but no fault; or wrong, so that something will not work.
  enum class Kind { right, note, wrong };
  Kind kind;
  std::string text;
};

// Reads every file that the daemon reads below its root, as the daemon would, and changes nothing.
std::vector<ConfigFinding> checkConfig(const Paths& paths);

// Prints the findings to standard output; 1 when any is wrong, else 0.
int printConfigCheck(const Paths& paths);

}  // namespace corvid
