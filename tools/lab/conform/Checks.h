// Every rule that is tried, in groups.
#pragma once

#include <vector>

#include "tools/lab/conform/Check.h"

namespace corvid::lab::conform {

std::vector<Check> postChecks();        // what devices post is taken
std::vector<Check> connectionChecks();  // connections, and who waits for whom
std::vector<Check> bodyChecks();        // bodies that nobody can read, or that readers differ about
std::vector<Check> requestChecks();     // requests that are none
std::vector<Check> fileChecks();        // uploads and log data

}  // namespace corvid::lab::conform
