// One client's connection as the daemon sees it, and the listener that brings it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "protocol/ClientSessionInterface.h"

namespace corvid {

// A connection from acceptance to invalidation.
//
// Threads   The delegate sets it up on its accept callback; from resume() on, the exported
//           object's operations and the handlers run on the connection's own thread, one after
//           the other. remoteObjectProxyWithErrorHandler, description, perform,
//           statesMayHaveChanged and invalidate: any thread.
// Ownership The connection holds its exported object and handlers until it is invalidated, and
//           drops them after the invalidation handler has run.
class Connection {
 public:
  virtual ~Connection() = default;

  // For log lines: peer's process, user and the connection's number.
  virtual std::string description() const = 0;
  // Who the peer was when it connected.
  struct Peer {
    std::int32_t process = 0;
    std::string unit{};  // the systemd unit that it ran in; empty where it is in none
  };
  virtual Peer peerProcess() const { return {}; }
  // The peer's user, by number.
  virtual std::uint32_t user() const = 0;
  // What the peer is entitled to under `name`; nothing where it is not.
  virtual std::optional<Value> valueForEntitlement(std::string_view name) = 0;
  // Only a true boolean entitles.
  bool isEntitledTo(std::string_view name) {
    const std::optional<Value> value = valueForEntitlement(name);
    return value && value->boolean().value_or(false);
  }

  virtual void setExportedObject(std::shared_ptr<ClientSessionInterface> object) = 0;
  // The connection broke but may come back. Not used by a transport that cannot resume.
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
  // The connection is gone. Runs once.
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  virtual void resume() = 0;

  // The client's interface. A call that cannot be delivered gives `onError` a description; so does
  // a proxy of a connection that is already gone, at its first call.
  virtual std::shared_ptr<ClientSessionReplyInterface> remoteObjectProxyWithErrorHandler(
      std::function<void(const std::string&)> onError) = 0;

  // The exported object's statesReport() may be another than before: the connection's thread looks,
  // after the call under way, if the client wants to hear of it. Any thread, with any lock held.
  virtual void statesMayHaveChanged() = 0;

  // Has `task` run on the connection's thread, between calls; a connection that is gone drops it.
  virtual void perform(std::function<void()> task) = 0;
  // Closes the connection with one log line that says why. Returns at once.
  virtual void invalidate(std::string_view reason) = 0;
};

class ListenerDelegate {
 public:
  virtual ~ListenerDelegate() = default;
  // Decides on a new connection; false closes it. On the accept thread.
  virtual bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) = 0;
  // A connection was closed at once because there are too many. On the accept thread.
  virtual void tooManyConnections() {}
};

}  // namespace corvid
