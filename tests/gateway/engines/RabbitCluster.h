#pragma once

#include <cstdint>
#include <vector>

#include "tests/gateway/engines/LogCluster.h"

namespace corvid::fleet {

// RabbitMQ from Debian's package, three nodes in a cluster, with a register of Erlang nodes
// (epmd), a cookie and a home of their own. Streams are quorum queues.
class RabbitCluster final : public LogCluster {
 public:
  // Starts the nodes, all or the first ones; use awaitAll().
  explicit RabbitCluster(Disks disks = Disks::shared, std::size_t nodes = size);
  ~RabbitCluster() override;

  std::string url() const override;
  std::optional<std::size_t> leaderOf(const std::string& stream) override;
  bool serves(std::size_t node) override;

 private:
  ChildProcess::Program program(std::size_t node) const override;
  // Answers of a running node to a call of a function, `call`: "module function [arguments]".
  std::optional<std::string> ask(std::size_t node, const std::string& call) const;

  const std::size_t _count;
  const std::vector<std::uint16_t> _ports;  // clients' of each node, between nodes, the register's
  const ChildProcess _register;
};

}  // namespace corvid::fleet
