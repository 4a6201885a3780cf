// The daemon's end of the service socket: brings connections to its delegate.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Result.h"
#include "base/Value.h"
#include "protocol/Connection.h"

namespace corvid {

class ServiceSocket;

// What the process at the other end of a connected socket is entitled to.
using EntitlementReader = std::function<Dictionary(int socket)>;

// Says whether a connection may be taken out of the socket. `enter` is asked on the accept thread
// before each; once it has refused, what waits stays in the socket for whoever serves it next, and
// nothing is accepted any more. `leave` follows each `enter` that agreed, after the delegate.
struct AcceptGate {
  std::function<bool()> enter;
  std::function<void()> leave;
};

// Accepts connections on one Unix socket.
//
// Threads   One accept thread, which asks the delegate, and one thread a connection, on which that
//           client's calls run one after the other. setDelegate and setAcceptGate before resume;
//           resume once. A connection thread may block without holding up anyone else.
// Limits    limits::connections and limits::connectionsPerUser; one connection more is closed with
//           a log line. Without file descriptors left, clients wait until there are some again.
// Stop      The destructor accepts nothing more, closes every connection and waits for the threads,
//           so for running calls and invalidation handlers too. Not from one of those threads.
class IPCListener {
 public:
  // Creates the socket file, open to everybody, and missing folders above it. A socket file that
  // nobody serves is replaced; fails where somebody does, or where the file is no socket.
  static Result<std::unique_ptr<IPCListener>> bind(const std::string& path,
                                                   EntitlementReader entitlements);
  // Takes over a listening Unix socket, such as one handed over at start. Owns it also on failure.
  static Result<std::unique_ptr<IPCListener>> adopt(int socket, EntitlementReader entitlements);
  ~IPCListener();
  IPCListener(const IPCListener&) = delete;
  IPCListener& operator=(const IPCListener&) = delete;

  void setDelegate(std::shared_ptr<ListenerDelegate> delegate);
  // Without a gate every connection is taken.
  void setAcceptGate(AcceptGate gate);
  void resume();

  // Connections that are open or being closed. Any thread.
  std::size_t connections() const;

 private:
  class Acceptor;
  explicit IPCListener(std::unique_ptr<Acceptor> acceptor);
  static Result<std::unique_ptr<IPCListener>> serving(Result<ServiceSocket> socket,
                                                      EntitlementReader entitlements);

  std::unique_ptr<Acceptor> _acceptor;
};

}  // namespace corvid
