// Ports for engines that cannot be told to take any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvid::fleet {

// Different TCP ports that nobody on this machine's loopback listens at just now.
std::vector<std::uint16_t> freePorts(std::size_t count);

// Whether somebody takes connections there.
bool isOpen(std::uint16_t port);

}  // namespace corvid::fleet
