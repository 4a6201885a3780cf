// The daemon from a client's socket to the backends: all of it is real but the system's services.
#pragma once

#include <memory>

#include "base/Descriptor.h"
#include "daemon/CorviddAgent.h"
#include "rpc/IPCConnection.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/fuzz/Require.h"

namespace corvid::fuzz {

class FuzzedDaemon {
 public:
  FuzzedDaemon();

  // Serves an entitled client of the user 1000 at the other end of the socket.
  std::shared_ptr<IPCConnection> serve(Descriptor socket);
  // Once all connections have ended and been joined: aborts where anything of them is left, or the
  // log tells of what may never happen.
  void requireOrder() const;

 private:
  TestPlatform _platform;
  const std::shared_ptr<CorviddAgent> _agent;
  std::uint64_t _lastNumber = 0;
};

}  // namespace corvid::fuzz
