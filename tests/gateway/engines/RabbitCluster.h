#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/gateway/engines/LogCluster.h"
#include "tests/gateway/engines/NodeRegister.h"
#include "tests/gateway/engines/Relay.h"

namespace corvid::fleet {

// RabbitMQ from Debian's package, three nodes in a cluster, with a cookie, a home and a register of
// Erlang nodes of their own. Streams are quorum queues. Each node finds the others through relays:
// whom a node looks for stands in its own register.
class RabbitCluster final : public LogCluster {
 public:
  // Starts the nodes, all or the first ones; use awaitAll().
  explicit RabbitCluster(Disks disks = Disks::shared, std::size_t nodes = size);
  ~RabbitCluster() override;

  std::string url() const override;
  std::optional<std::size_t> leaderOf(const std::string& stream) override;
  bool serves(std::size_t node) override;

  // Between this node and the others nothing goes through; clients reach all of them.
  void cutOff(std::size_t node);
  void joinAgain(std::size_t node);

 private:
  static constexpr std::size_t registerPorts = 2 * size;
  using Relays = std::array<std::array<std::unique_ptr<Relay>, size>, size>;

  ChildProcess::Program program(std::size_t node) const override;
  std::string configuration(std::size_t node) const;
  // Answers of a running node to a call of a function, `call`: "module function [arguments]".
  std::optional<std::string> ask(std::size_t node, const std::string& call) const;

  const std::size_t _count;
  const std::vector<std::uint16_t> _ports;  // of each node: clients', between nodes, its register's
  Relays _relays;                           // from one to another
  std::vector<NodeRegister> _registers;
};

}  // namespace corvid::fleet
