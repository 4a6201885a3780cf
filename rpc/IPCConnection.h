// A client's connection over a Unix socket.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "platform/ExtensionTokens.h"
#include "platform/SharedBudget.h"
#include "protocol/Connection.h"
#include "rpc/Outbox.h"
#include "rpc/PeerEntitlements.h"

namespace corvid {

// Threads   See Connection. resume() starts the connection's own thread, which runs until the peer
//           is lost, has broken a rule or the connection was closed, then the invalidation handler,
//           and last drops the handlers and the exported object.
// Ownership The listener keeps it until its thread has ended and calls join() before letting go.
class IPCConnection final : public Connection {
 public:
  struct Peer {
    std::uint64_t number = 0;  // of the connection
    pid_t process = 0;
    uid_t user = 0;
  };
  // What connections have in common. Borrowed.
  struct Shared {
    ExtensionTokens& tokens;  // for files that clients grant
    const Budgets& budgets;
    // The unit that a connected socket's peer runs in. Empty where nobody asks for it.
    std::function<std::string(int socket)> unitOf{};
  };
  // `ended` is called on the connection's thread when hasEnded() has become true.
  IPCConnection(Descriptor socket, Peer peer, PeerEntitlements entitlements, Shared shared,
                std::function<void()> ended);
  ~IPCConnection() override;

  std::string description() const override { return _description; }
  Connection::Peer peerProcess() const override { return {_peer.process, _unit}; }
  std::uint32_t user() const override { return _peer.user; }
  std::optional<Value> valueForEntitlement(std::string_view name) override;
  void setExportedObject(std::shared_ptr<ClientSessionInterface> object) override;
  void setInterruptionHandler(std::function<void()> handler) override;
  void setInvalidationHandler(std::function<void()> handler) override;
  void resume() override;
  std::shared_ptr<ClientSessionReplyInterface> remoteObjectProxyWithErrorHandler(
      std::function<void(const std::string&)> onError) override;
  void statesMayHaveChanged() override { _outbox->noteStates(); }
  void perform(std::function<void()> task) override { _outbox->post(std::move(task)); }
  void invalidate(std::string_view reason) override;

  const Peer& peer() const { return _peer; }
  // Deliveries that were lost because the client does not take them. Any thread.
  std::size_t droppedDeliveries() const { return _outbox->dropped(); }

  // Whether the peer no longer has an entitlement with which it was accepted. Accept thread.
  bool hasLostEntitlements() const;

  // Whether nothing more will happen on the connection's thread. Any thread.
  bool hasEnded() const { return _hasEnded; }
  // For the listener. close() ends the connection without a log line, from any thread; join()
  // waits for its thread. A connection that was never resumed has none and just goes.
  void close() { _outbox->close(); }
  void join();

 private:
  class Serving;

  void run();
  void tearDown();

  // Constant after construction.
  const Peer _peer;
  const std::string _description;
  const std::string _unit;
  const PeerEntitlements _entitlementsNow;
  const Dictionary _entitlements;  // as they were when it was accepted
  const Shared _shared;
  const std::function<void()> _ended;
  // By themselves.
  const std::shared_ptr<Outbox> _outbox;
  std::atomic<bool> _hasEnded = false;

  // Set before resume(), then the connection's thread only.
  Descriptor _socket;
  std::shared_ptr<ClientSessionInterface> _exportedObject;
  std::function<void()> _interruptionHandler;
  std::function<void()> _invalidationHandler;

  std::thread _thread;  // the listener's, after resume()
};

}  // namespace corvid
