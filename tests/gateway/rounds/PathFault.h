// What happens to the whole path in a round.
#pragma once

#include <cstddef>
#include <random>
#include <string_view>

#include "tests/gateway/engines/RabbitCluster.h"
#include "tests/gateway/engines/ScratchFleet.h"

namespace corvid::fleet {

enum class PathFaultKind {
  killLeader,    // of the stream that devices' events go to
  killFollower,  // another node
  killGateway,
  killLoader,
  killDatabase,
  partition,  // one node hears nothing from the others, nor they from it; clients reach all
  reloadNginx,
  fullDisk,  // of the leader; for nodes with disks of their own
};
inline constexpr std::size_t pathFaultKinds = 8;

std::string_view wordFor(PathFaultKind kind);

// One fault. The thread of the cluster and the fleet.
class PathFault {
 public:
  // So many gateways and so many loaders there have to be.
  static constexpr std::size_t parts = 2;
  // `random` says what it meets, and for how long. std::runtime_error where no node leads.
  PathFault(PathFaultKind kind, RabbitCluster& cluster, ScratchFleet& fleet,
            std::mt19937_64& random);

  // How long it is to last.
  std::chrono::milliseconds length() const { return _length; }
  void inject();
  // Starts what was killed, makes room, joins what was parted. Does not wait for a node, gateway or
  // loader that starts.
  void heal();

 private:
  const PathFaultKind _kind;
  RabbitCluster& _cluster;
  ScratchFleet& _fleet;
  std::chrono::milliseconds _length{};
  std::size_t _node = 0;
  std::size_t _one = 0;  // of the gateways or loaders
};

}  // namespace corvid::fleet
