// What tests do to file systems.
#pragma once

#include <string>

namespace corvid {

// Gives the process mounts of its own, which only it and its children see; false where the system
// does not let it. Before any other thread runs.
bool takeOwnMounts();

// Not a byte more fits on the folder's file system, until unfillDisk(folder).
void fillDisk(const std::string& folder);
void unfillDisk(const std::string& folder);

}  // namespace corvid
