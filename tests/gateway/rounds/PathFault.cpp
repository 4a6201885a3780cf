#include "tests/gateway/rounds/PathFault.h"

#include <stdexcept>
#include <thread>

namespace corvid::fleet {

namespace {

using namespace std::chrono_literals;

// A node that hears nothing from the others knows it after 8 s and leaves them: some partitions
// are over before that.
std::chrono::milliseconds longest(PathFaultKind kind) {
  return kind == PathFaultKind::partition ? 15s : kind == PathFaultKind::reloadNginx ? 1s : 5s;
}

}  // namespace

std::string_view wordFor(PathFaultKind kind) {
  switch (kind) {
    case PathFaultKind::killLeader: return "kill leader";
    case PathFaultKind::killFollower: return "kill follower";
    case PathFaultKind::killGateway: return "kill gateway";
    case PathFaultKind::killLoader: return "kill loader";
    case PathFaultKind::killDatabase: return "kill database";
    case PathFaultKind::partition: return "partition";
    case PathFaultKind::reloadNginx: return "reload nginx";
    case PathFaultKind::fullDisk: return "full disk";
  }
  return {};
}

PathFault::PathFault(PathFaultKind kind, RabbitCluster& cluster, ScratchFleet& fleet,
                     std::mt19937_64& random)
    : _kind(kind),
      _cluster(cluster),
      _fleet(fleet),
      _length(500 + random() % static_cast<std::size_t>(longest(kind).count() - 500)),
      _one(random() % parts) {
  const std::size_t drawn = random();
  _node = drawn % LogCluster::size;
  if (kind == PathFaultKind::partition) return;
  const auto leader = cluster.leaderOf("events");
  if (!leader) throw std::runtime_error("nobody leads the stream");
  const bool others = kind == PathFaultKind::killFollower;
  _node = others ? (*leader + 1 + drawn % (LogCluster::size - 1)) % LogCluster::size : *leader;
}

void PathFault::inject() {
  switch (_kind) {
    case PathFaultKind::killLeader:
    case PathFaultKind::killFollower: return _cluster.kill(_node);
    case PathFaultKind::killGateway: return _fleet.gateway(_one).kill();
    case PathFaultKind::killLoader: return _fleet.loader(_one).kill();
    case PathFaultKind::killDatabase: return _fleet.postgres().kill();
    case PathFaultKind::partition: return _cluster.cutOff(_node);
    case PathFaultKind::fullDisk: return _cluster.disk(_node).fill();
    case PathFaultKind::reloadNginx:
      for (int times = 0; times < 3; ++times) {
        _fleet.nginx().reload();
        std::this_thread::sleep_for(200ms);
      }
  }
}

void PathFault::heal() {
  switch (_kind) {
    case PathFaultKind::killLeader:
    case PathFaultKind::killFollower: return _cluster.start(_node);
    case PathFaultKind::killGateway: return _fleet.gateway(_one).start();
    case PathFaultKind::killLoader: return _fleet.loader(_one).start();
    case PathFaultKind::killDatabase: return _fleet.postgres().start();
    case PathFaultKind::partition: return _cluster.joinAgain(_node);
    case PathFaultKind::fullDisk: return _cluster.disk(_node).unfill();
    case PathFaultKind::reloadNginx: return;
  }
}

}  // namespace corvid::fleet
