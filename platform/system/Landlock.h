// Confinement of files and sockets by the kernel's Landlock.
#pragma once

#include <optional>
#include <string>

#include "platform/system/SandboxProfile.h"

namespace corvid {

// Confines the calling thread, and those it starts later, to the profile's paths and network for
// good. The process must have no_new_privs or the right to do without.
//
// Files are confined by every kernel that has Landlock. Linux 6.7 (the fourth ABI) and later also
// refuse to bind TCP ports, and to connect where the profile, or its ports, do not allow it; 6.12
// (the sixth) keeps the process from signalling others and from abstract Unix sockets outside.
//
// Gives nothing on success, else what failed.
std::optional<std::string> enterLandlock(const SandboxProfile& profile);

// Why the system has none to enter; nothing where it has.
std::optional<std::string> landlockMissing();

// What is to be done where the system refuses the first question with that error: about the kernel,
// or about a filter around the process that has forbidden or hidden the calls. `newEnough`: the
// kernel's version has Landlock.
std::string whyNoLandlock(int error, bool newEnough, bool filtered);

}  // namespace corvid
