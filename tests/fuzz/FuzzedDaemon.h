// The daemon from a client's socket to the backends: all of it is real but the system's services.
#pragma once

#include <memory>
#include <optional>

#include "base/Descriptor.h"
#include "daemon/CorviddAgent.h"
#include "rpc/ControlService.h"
#include "rpc/IPCConnection.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/fuzz/Require.h"
#include "tests/support/Scratch.h"

namespace corvid::fuzz {

class FuzzedDaemon {
 public:
  // With a client whose session stands on top of the chain "Player" of "Service" and aggregates.
  FuzzedDaemon();
  // All connections must have ended and been joined. Aborts where anything of them is left, or
  // where the log tells of what may never happen.
  ~FuzzedDaemon();
  FuzzedDaemon(const FuzzedDaemon&) = delete;
  FuzzedDaemon& operator=(const FuzzedDaemon&) = delete;

  // Serves an entitled client of the same user at the other end of the socket.
  std::shared_ptr<IPCConnection> serve(Descriptor socket);
  // Connects as somebody who may look. Once.
  Descriptor look();
  // An event that meets no backend, and is dropped at once.
  void dropEvent() const { _agent->ledger()->drop({.session = 1}, Reason::notConfigured); }

 private:
  TestPlatform _platform;
  const std::shared_ptr<CorviddAgent> _agent;
  const std::shared_ptr<FakeConnection> _resident = std::make_shared<FakeConnection>();
  std::uint64_t _lastNumber = 0;
  std::optional<ScratchFolder> _folder;
  std::unique_ptr<ControlService> _control;
};

}  // namespace corvid::fuzz
