#pragma once

#include <chrono>
#include <optional>
#include <random>
#include <string>

#include "tests/gateway/rounds/Device.h"
#include "tests/gateway/rounds/PathFault.h"
#include "tests/gateway/rounds/Stored.h"

namespace corvid::fleet {

// What devices post to and where it ends. `identity` is nginx's.
struct Path {
  RabbitCluster& cluster;
  ScratchFleet& fleet;
  const lab::TLSIdentity& identity;
};

struct PathRoundResult {
  Device::Sums sums;
  Stored stored;
  std::chrono::duration<double> length{};  // of the fault
  // From the fault's end until a device had another post acknowledged, and until each had.
  std::optional<std::chrono::duration<double>> first, every;
  std::chrono::duration<double> gap{};  // the longest time without an acknowledgement
  bool isWholeAgain = false;            // everything serves without having been started once more
  bool isDead = false;  // a node does not serve either when it was started once more
};

// Devices post, the fault comes and goes, and what they sent is looked for. `name`: begins the
// names of the devices, another one for each round. std::runtime_error where the path does not
// take posts before the fault.
PathRoundResult runPathRound(const Path& path, PathFaultKind kind, const std::string& name,
                             std::mt19937_64& random);

}  // namespace corvid::fleet
