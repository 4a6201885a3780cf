// Where the machine keeps what it knows about its use of power.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// Threads: any.
class PowerLog {
 public:
  virtual ~PowerLog() = default;
  // Records an event of a subsystem. Does not wait; what cannot be recorded is lost.
  virtual void logRegisteredEvent(std::uint32_t subsystem, std::string_view event,
                                  const Dictionary& payload) = 0;
};

}  // namespace corvid
