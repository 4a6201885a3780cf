// The daemon's end of the service socket: brings connections to its delegate.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/Descriptor.h"
#include "base/Heartbeat.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "base/Wakeup.h"
#include "protocol/Connection.h"
#include "rpc/IPCConnection.h"
#include "rpc/PeerEntitlements.h"
#include "rpc/ServiceSocket.h"

namespace corvid {

// Says whether a connection may be taken out of the socket. `enter` is asked on the accept thread
// before each; once it has refused, what waits stays in the socket for whoever serves it next, and
// nothing is accepted any more. `leave` follows each `enter` that agreed, after the delegate.
struct AcceptGate {
  std::function<bool()> enter;
  std::function<void()> leave;
};

// Whether a peer's connection may be opened while `all` others are, `ofUser` of them by the peer's
// user. A user may have two thirds of what others leave, limits::connectionsPerUser at most. A
// refusal is logged with the limit that it would pass; that of all connections comes first.
bool admitsConnection(pid_t process, uid_t user, std::size_t all, std::size_t ofUser);

// Accepts connections on one Unix socket.
//
// Threads   One accept thread, which asks the delegate, and one thread a connection, on which that
//           client's calls run one after the other. A connection thread may block without holding
//           up anyone else.
// Limits    limits::connections, of which a user gets what admitsConnection says, and
//           limits::descriptorReserve; a connection past them is closed with a log line. Without
//           file descriptors left, clients wait until there are some again.
// Rights    A quarter of a second after entitlements have changed, connections whose peers have
//           lost one are closed with a log line. What a peer gains, its next connection has.
// Stop      The destructor accepts nothing more, closes every connection and waits for the threads,
//           so for running calls and invalidation handlers too. Not from one of those threads.
class IPCListener {
 public:
  // Fails where the socket did, or where the system has no descriptor left.
  static Result<std::unique_ptr<IPCListener>> serving(Result<ServiceSocket> socket,
                                                      EntitlementReader entitlements,
                                                      IPCConnection::Shared shared);
  ~IPCListener();
  IPCListener(const IPCListener&) = delete;
  IPCListener& operator=(const IPCListener&) = delete;

  // Starts the accept thread, once. Without a gate every connection is taken. The descriptor of
  // `changes` outlives the listener.
  void resume(std::shared_ptr<ListenerDelegate> delegate, AcceptGate gate = {},
              EntitlementChanges changes = {});

  // Accepts nothing more and has every connection end, as if its client had left; returns at once.
  // Not from the accept thread.
  void close() EXCLUDES(_mutex);
  // For a process that ends without the destructor: removes the socket's file, if it is its own.
  void abandonSocket() const { _socket.removeFile(); }
  Heartbeat& heartbeat() { return _heartbeat; }
  // Connections that are open or being closed, with what their ends still do. Any thread.
  std::size_t connections() const;

 private:
  IPCListener(ServiceSocket socket, EntitlementReader entitlements, IPCConnection::Shared shared);
  void run();
  // Milliseconds, or -1.
  int longestWait() const;
  // Both: whether another may wait.
  bool acceptThroughGate();
  bool acceptOne();
  void starve(std::string_view action, int error);
  void bring(Descriptor socket);
  bool admits(pid_t process, uid_t user) const EXCLUDES(_mutex);
  void reap() EXCLUDES(_mutex);
  void closeWhoLostEntitlements() EXCLUDES(_mutex);

  // Constant after resume().
  const EntitlementReader _entitlements;
  const IPCConnection::Shared _shared;
  const Wakeup _wakeup;
  Heartbeat _heartbeat{"accept", [this] { _wakeup.wake(); }};
  const ServiceSocket _socket;
  std::shared_ptr<ListenerDelegate> _delegate;
  AcceptGate _gate;
  EntitlementChanges _changes;
  std::thread _thread;

  // The accept thread's.
  std::uint64_t _lastNumber = 0;
  bool _starved = false;
  bool _refused = false;  // by the gate
  // When what has changed is looked at.
  std::optional<std::chrono::steady_clock::time_point> _examination;

  mutable Mutex _mutex;
  std::vector<std::shared_ptr<IPCConnection>> _connections GUARDED_BY(_mutex);
  bool _stopping GUARDED_BY(_mutex) = false;
};

}  // namespace corvid
