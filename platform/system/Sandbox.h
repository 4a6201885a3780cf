// The process locks itself in.
#pragma once

#include <optional>
#include <string>

#include "platform/Paths.h"
#include "platform/data/Deployment.h"

namespace corvid {

// Enters the profile `<profileName>.plist` of the sandbox folder for good: from then on files and
// TCP sockets are confined by Landlock and system calls by a seccomp filter, and writable memory is
// never executable. Call it on the only
// thread of the process; all later threads are inside as well.
//
// Gives nothing on success, else a text that says what failed and what to do; the process is then
// partly confined at most and should end. A missing or unusable profile is a failure, and so is a
// kernel without Landlock or seccomp.
//
// With `MissingFolders::leave` no folder is made, and nothing can be written to those that lack.
enum class MissingFolders { make, leave };
std::optional<std::string> sandboxInit(const std::string& profileName, const Paths& paths,
                                       const Deployment& deployment = {},
                                       MissingFolders folders = MissingFolders::make);

// Takes from all threads what is needed once at most, to set up the listener: making a socket
// listen and changing a file's mode by name. Landlock confines neither: it refuses to bind a TCP
// port, but a TCP socket that listens unbound gets one. Call it when the listener stands, inside
// the sandbox only. Gives nothing on success, else what failed; the process may go on.
std::optional<std::string> sandboxSeal();

}  // namespace corvid
