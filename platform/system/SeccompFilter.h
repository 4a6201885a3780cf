// Confinement of system calls by a seccomp filter.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>

#include "platform/system/SandboxProfile.h"

namespace corvid {

// Confines the calling thread, and those it starts later, to the profile's system calls for good.
// The process must have no_new_privs.
//
// A system call outside the list fails with EPERM, so that the caller can report it, and the kernel
// notes its number in the audit log ("type=1326 ... syscall=59"; names with `ausyscall 59`). One of
// the absent list fails with ENOSYS and goes unnoted. A call by another architecture's numbers ends
// the process.
//
// Gives nothing on success, else what failed.
std::optional<std::string> enterSeccompFilter(const SandboxProfile& profile);

// Refuses more system calls, to all threads of the process.
std::optional<std::string> refuseSystemCallsInAllThreads(std::initializer_list<const char*> names);

}  // namespace corvid
