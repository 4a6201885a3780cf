// Which systemd unit a process runs in.
#pragma once

#include <string>
#include <string_view>

namespace corvid {

// The unit that the lines of a process's /proc/PID/cgroup name: the outermost service or scope, so
// that nobody can choose it who only has a part of the tree. Empty where they name none.
std::string unitOfControlGroups(std::string_view lines);

}  // namespace corvid
