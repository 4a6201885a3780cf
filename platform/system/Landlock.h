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
// refuse to bind TCP ports, and to connect where the profile does not allow it; 6.12 (the sixth)
// keeps the process from signalling others and from abstract Unix sockets outside.
//
// Gives nothing on success, else what failed.
std::optional<std::string> enterLandlock(const SandboxProfile& profile);

}  // namespace corvid
