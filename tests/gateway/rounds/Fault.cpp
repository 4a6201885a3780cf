#include "tests/gateway/rounds/Fault.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace corvid::fleet {

std::string_view wordFor(FaultKind kind) {
  switch (kind) {
    case FaultKind::killLeader: return "kill leader";
    case FaultKind::killAny: return "kill follower";
    case FaultKind::killTwo: return "kill two";
    case FaultKind::killAll: return "kill all";
    case FaultKind::freezeLeader: return "freeze leader";
    case FaultKind::freezeTwo: return "freeze two";
    case FaultKind::fullDisk: return "full disk";
    case FaultKind::restartLoop: return "restart loop";
    case FaultKind::cutLeader: return "power cut of leader";
    case FaultKind::cutAll: return "power cut of all";
  }
  return {};
}

Fault::Fault(FaultKind kind, LogCluster& cluster, const std::string& stream,
             std::mt19937_64& random)
    : _kind(kind), _cluster(cluster) {
  for (std::size_t node = 0; node < LogCluster::size; ++node) _nodes.push_back(node);
  std::ranges::shuffle(_nodes, random);
  if (const auto leader = cluster.leaderOf(stream)) {
    std::erase(_nodes, *leader);
    _nodes.insert(_nodes.begin(), *leader);
  }
}

void Fault::inject() {
  switch (_kind) {
    case FaultKind::killLeader: return _cluster.kill(_nodes[0]);
    case FaultKind::killAny: return _cluster.kill(_nodes[1]);
    case FaultKind::killTwo: _cluster.kill(_nodes[0]); return _cluster.kill(_nodes[1]);
    case FaultKind::killAll:
      for (const std::size_t node : _nodes) _cluster.kill(node);
      return;
    case FaultKind::freezeLeader: return _cluster.freeze(_nodes[0]);
    case FaultKind::freezeTwo: _cluster.freeze(_nodes[0]); return _cluster.freeze(_nodes[1]);
    case FaultKind::fullDisk: return _cluster.disk(_nodes[0]).fill();
    case FaultKind::restartLoop:
      for (const std::size_t node : _nodes) {
        _cluster.kill(node);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        _cluster.start(node);
        std::this_thread::sleep_for(std::chrono::seconds(1));
      }
      return;
    case FaultKind::cutLeader:
      _cluster.freeze(_nodes[0]);
      _cluster.disk(_nodes[0]).takePicture();
      return _cluster.kill(_nodes[0]);
    case FaultKind::cutAll:
      for (const std::size_t node : _nodes) _cluster.freeze(node);
      for (const std::size_t node : _nodes) _cluster.disk(node).takePicture();
      for (const std::size_t node : _nodes) _cluster.kill(node);
      return;
  }
}

void Fault::heal() {
  if (_kind == FaultKind::cutLeader) _cluster.disk(_nodes[0]).restorePicture();
  if (_kind == FaultKind::cutAll)
    for (const std::size_t node : _nodes) _cluster.disk(node).restorePicture();
  if (_kind == FaultKind::fullDisk) _cluster.disk(_nodes[0]).unfill();
  for (const std::size_t node : _nodes)
    if (_cluster.isRunning(node))
      _cluster.thaw(node);
    else
      _cluster.start(node);
}

}  // namespace corvid::fleet
