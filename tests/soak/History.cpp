#include "tests/soak/History.h"

#include <chrono>

namespace corvid::soak {

Time now() {
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count();
}

std::string_view nameOf(FaultKind kind) {
  switch (kind) {
    case FaultKind::status404: return "status404";
    case FaultKind::status500: return "status500";
    case FaultKind::status503: return "status503";
    case FaultKind::refuse: return "refuse";
    case FaultKind::hang: return "hang";
    case FaultKind::slow: return "slow";
    case FaultKind::reset: return "reset";
    case FaultKind::hangUp: return "hangUp";
    case FaultKind::garbage: return "garbage";
    case FaultKind::expired: return "expired";
    case FaultKind::cutAnswer: return "cutAnswer";
    case FaultKind::clockStep: return "clockStep";
    case FaultKind::clockWrong: return "clockWrong";
    case FaultKind::fullDisk: return "fullDisk";
    case FaultKind::freezeDaemon: return "freezeDaemon";
    case FaultKind::killDaemon: return "killDaemon";
    case FaultKind::stopDaemon: return "stopDaemon";
    case FaultKind::reload: return "reload";
    case FaultKind::freezeClient: return "freezeClient";
    case FaultKind::killClient: return "killClient";
  }
  return "?";
}

}  // namespace corvid::soak
