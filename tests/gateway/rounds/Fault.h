// What happens to a cluster in a round.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/gateway/engines/LogCluster.h"

namespace corvid::fleet {

enum class FaultKind {
  killLeader,
  killAny,       // a node that does not lead
  killTwo,       // the leader and another one
  killAll,       // at once
  freezeLeader,  // SIGSTOP: connections stay, and nobody answers
  freezeTwo,
  fullDisk,     // of the leader
  restartLoop,  // one node after the other, each killed while the one before it starts
  cutLeader,    // killed, and what was not yet on its disk is gone
  cutAll,       // the same for the three at once
};
inline constexpr std::size_t faultKinds = 10;

std::string_view wordFor(FaultKind kind);

// One fault. The thread of the cluster.
class Fault {
 public:
  // `random` says which nodes it meets, where it is not the leader of `stream`.
  Fault(FaultKind kind, LogCluster& cluster, const std::string& stream, std::mt19937_64& random);

  void inject();
  // Lets go what was frozen, makes room, starts what does not run.
  void heal();

 private:
  const FaultKind _kind;
  LogCluster& _cluster;
  std::vector<std::size_t> _nodes;  // the leader first where one is known
};

}  // namespace corvid::fleet
