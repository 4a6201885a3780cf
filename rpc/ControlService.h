// Serves the control socket.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string_view>
#include <thread>

#include "base/Descriptor.h"
#include "base/Heartbeat.h"
#include "base/Result.h"
#include "base/Wakeup.h"
#include "platform/SharedBudget.h"
#include "protocol/ControlInterface.h"
#include "rpc/Outbox.h"
#include "rpc/PeerEntitlements.h"
#include "rpc/ServiceSocket.h"

namespace corvid {

// Accepts those who may look at the daemon, and answers each on a thread of its own, behind the
// same guard and limits as clients.
//
// Who       User 0, the daemon's own user, and whoever is entitled to `requiredEntitlement`.
// Anybody
//           else is closed, with a debug line.
// Threads   One that accepts and one a connection.
// Limits    limits::controlConnections; one more is closed.
// Stop      The destructor closes every connection and waits for the threads.
class ControlService {
 public:
  static constexpr std::string_view requiredEntitlement = "com.halcyon.private.corvidd.control";

  // Fails where the socket did. `budgets` is borrowed.
  static Result<std::unique_ptr<ControlService>> serving(Result<ServiceSocket> socket,
                                                         EntitlementReader entitlements,
                                                         const Budgets& budgets);
  ~ControlService();
  ControlService(const ControlService&) = delete;
  ControlService& operator=(const ControlService&) = delete;

  // For a process that ends without the destructor: removes the socket's file, if it is its own.
  void abandonSocket() const { _socket.removeFile(); }
  // Once.
  void resume(std::shared_ptr<ControlInterface> control);
  Heartbeat& heartbeat() { return _heartbeat; }

 private:
  class Connection;

  ControlService(ServiceSocket socket, EntitlementReader entitlements, const Budgets& budgets);
  void run();
  void bring(Descriptor socket);

  const ServiceSocket _socket;
  const EntitlementReader _entitlements;
  const Budgets& _budgets;
  const Wakeup _wakeup;
  Heartbeat _heartbeat{"control", [this] { _wakeup.wake(); }};
  std::shared_ptr<ControlInterface> _control;
  std::atomic<bool> _stopping{false};
  std::thread _thread;
  // The accept thread's.
  std::uint64_t _lastNumber = 0;
  std::list<std::unique_ptr<Connection>> _connections;
};

}  // namespace corvid
