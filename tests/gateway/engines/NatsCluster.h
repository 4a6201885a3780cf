#pragma once

#include <cstdint>
#include <vector>

#include "tests/gateway/engines/LogCluster.h"

namespace corvid::fleet {

// nats-server from Debian's package with JetStream, three nodes in a cluster.
class NatsCluster final : public LogCluster {
 public:
  // Starts the nodes; use awaitAll().
  explicit NatsCluster(Disks disks = Disks::shared);
  ~NatsCluster() override;

  std::string url() const override;
  std::optional<std::size_t> leaderOf(const std::string& stream) override;
  bool serves(std::size_t node) override;

 private:
  ChildProcess::Program program(std::size_t node) const override;
  std::optional<std::string> ask(std::size_t node, const std::string& path) const;

  const std::vector<std::uint16_t> _ports;  // clients', between nodes, of questions: of each node
};

}  // namespace corvid::fleet
