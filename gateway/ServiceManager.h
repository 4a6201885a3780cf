// What the service manager is told.
#pragma once

#include <string_view>

namespace corvid::fleet {

// Sends lines such as "READY=1" to the manager that started this process; does nothing where none
// did, or where it does not listen.
void notifyManager(std::string_view lines);

}  // namespace corvid::fleet
