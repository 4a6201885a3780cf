// Posts over many connections, through a gateway, into a real log.
#pragma once

#include <chrono>
#include <cstddef>

#include "bench/devices/Setup.h"
#include "tests/gateway/engines/RabbitCluster.h"
#include "tests/gateway/engines/ScratchFleet.h"
#include "tests/support/Scratch.h"

namespace corvid::bench {

// One gateway before the log: devices post to it in the clear, but where nginx is measured. One
// thread.
class FleetPath {
 public:
  // The log serves.
  FleetPath(fleet::RabbitCluster& log, int nodes, int seconds);

  static void printHeading();
  // Prints a line: at full load, what a post takes; at half of it, how long.
  void measurePosts(int events, int connections);
  // Prints what the loader takes for an event, and how much room that takes in the database. What
  // is left in the log then is thrown away.
  void measureLoader(int events);
  // Prints what nginx takes for a post over a kept connection, and for a connection.
  void measureNginx();

 private:
  FleetSetup toGateway(int events, int connections, double rate) const;
  std::chrono::nanoseconds nginxTime() const;
  std::size_t stored();  // messages
  void emptyLog();

  fleet::RabbitCluster& _log;
  const int _nodes;
  const int _seconds;
  const ScratchFolder _scratch;
  const lab::TLSIdentity _identity{_scratch.path("identity")};
  fleet::ScratchFleet _fleet;
};

}  // namespace corvid::bench
