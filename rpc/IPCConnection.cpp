#include "rpc/IPCConnection.h"

#include <capnp/rpc-twoparty.h>
#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/ActingUser.h"
#include "base/Complaint.h"
#include "base/Log.h"
#include "base/Thread.h"
#include "protocol/Limits.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/SocketPort.h"
#include "rpc/BudgetAccount.h"
#include "rpc/DeliverySender.h"
#include "rpc/PeerGuard.h"
#include "rpc/SessionServer.h"
#include "rpc/StatesSender.h"

namespace corvid {

namespace {

class Proxy final : public ClientSessionReplyInterface {
 public:
  Proxy(std::shared_ptr<Outbox> outbox, std::function<void(const std::string&)> onError)
      : _outbox(std::move(outbox)), _onError(std::move(onError)) {}

  void sendMessageToClient(std::optional<Dictionary> message, double timestamp,
                           std::uint16_t category, std::uint16_t type,
                           std::optional<Dictionary> payload) override {
    if (!_outbox->add({std::move(message), timestamp, category, type, std::move(payload)}) &&
        _onError)
      _onError("the connection is gone");
  }

 private:
  const std::shared_ptr<Outbox> _outbox;
  const std::function<void(const std::string&)> _onError;
};

}  // namespace

// The connection's event loop, while there is a peer.
class IPCConnection::Serving {
 public:
  Serving(IPCConnection& connection, wire::SocketPort& port)
      : _connection(connection),
        _port(port),
        _account(connection._shared.budgets, connection._peer.user),
        _stream(port, {[this](std::size_t bytes) { return _account.admitMessage(bytes); },
                       limits::messageTime.count() * kj::SECONDS}),
        _guard(
            _stream, port, _account, [this](const std::string& rule) { ruleBroken(rule); },
            [this] { messageIsWritten(); }),
        _network(_guard, limits::descriptorsPerMessage, capnp::rpc::twoparty::Side::SERVER),
        _sender(*connection._outbox, _guard, _network, [this] { return client(); }),
        _states(*connection._exportedObject, *connection._outbox, _guard, _network,
                [this] { return client(); }),
        _rpc(capnp::makeRpcServer(
            _network,
            kj::heap<SessionServer>(connection._exportedObject, connection._outbox,
                                    SessionServer::Serving{_guard, _sender, _states, _account, port,
                                                           connection._shared.tokens},
                                    connection._description))) {}

  void run(kj::WaitScope& scope) {
    auto end = kj::newPromiseAndFulfiller<void>();
    _end = kj::mv(end.fulfiller);
    auto woken = whenWoken().eagerlyEvaluate(nullptr);
    _network.onDisconnect().exclusiveJoin(kj::mv(end.promise)).wait(scope);
  }

 private:
  void ruleBroken(const std::string& rule) {
    if (_connection._outbox->close())
      logComplaint("IPCConnection: {} broke a rule: {}; closing the connection",
                   _connection._description, rule);
    // The client is told, where its socket still takes that.
    _farewell = kj::evalLast([this] { _end->fulfill(); }).eagerlyEvaluate(nullptr);
  }

  void messageIsWritten() {
    if (_guard.hasWrittenAll(_network)) _account.answersAreTaken();
    flushIfClientReads();
  }

  void flushIfClientReads() {
    _sender.flushIfClientReads();
    _states.flushIfClientReads();
  }

  kj::Promise<void> whenWoken() {
    return _port.whenWoken().then([this] {
      for (Outbox::Task& task : _connection._outbox->takeTasks()) task();
      flushIfClientReads();
      if (_connection._outbox->mustClose()) _end->fulfill();
      return whenWoken();
    });
  }

  // Of the client's exported object, which is asked for when it is first needed.
  wire::ClientSessionReply::Client client() {
    if (_client) return *_client;
    capnp::MallocMessageBuilder message(4);
    auto peer = message.initRoot<capnp::rpc::twoparty::VatId>();
    peer.setSide(capnp::rpc::twoparty::Side::CLIENT);
    return _client.emplace(_rpc.bootstrap(peer).castAs<wire::ClientSessionReply>());
  }

  IPCConnection& _connection;
  wire::SocketPort& _port;
  BudgetAccount _account;
  wire::MessageSocket _stream;
  PeerGuard _guard;
  capnp::TwoPartyVatNetwork _network;
  DeliverySender _sender;
  StatesSender _states;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> _rpc;
  std::optional<wire::ClientSessionReply::Client> _client;
  kj::Own<kj::PromiseFulfiller<void>> _end;
  kj::Promise<void> _farewell = nullptr;
};

IPCConnection::IPCConnection(Descriptor socket, Peer peer, PeerEntitlements entitlements,
                             Shared shared, std::function<void()> ended)
    : _peer(peer),
      _description(fmt::format("connection {} of process {}, user {}", peer.number, peer.process,
                               peer.user)),
      _unit(shared.unitOf ? shared.unitOf(socket.get()) : std::string()),
      _entitlementsNow(std::move(entitlements)),
      _entitlements(_entitlementsNow()),
      _shared(shared),
      _ended(std::move(ended)),
      _outbox(std::make_shared<Outbox>(_description, _shared.budgets.kept, _peer.user)),
      _socket(std::move(socket)) {}

IPCConnection::~IPCConnection() { join(); }

std::optional<Value> IPCConnection::valueForEntitlement(std::string_view name) {
  const Value* value = _entitlements.find(name);
  return value ? std::optional<Value>(*value) : std::nullopt;
}

bool IPCConnection::hasLostEntitlements() const {
  const Dictionary now = _entitlementsNow();
  return !std::ranges::all_of(_entitlements, [&](const Dictionary::Entry& had) {
    const Value* has = now.find(had.key);
    return has && *has == had.value;
  });
}

void IPCConnection::setExportedObject(std::shared_ptr<ClientSessionInterface> object) {
  _exportedObject = std::move(object);
}

void IPCConnection::setInterruptionHandler(std::function<void()> handler) {
  _interruptionHandler = std::move(handler);
}

void IPCConnection::setInvalidationHandler(std::function<void()> handler) {
  _invalidationHandler = std::move(handler);
}

void IPCConnection::resume() {
  if (!_exportedObject) throw std::logic_error("a connection is resumed without an object");
  try {
    _thread = startThread("corvid-client", [this] { run(); });
  } catch (const std::system_error& error) {
    logError("IPCConnection: No thread for {}: {}", _description, error.what());
    tearDown();
  }
}

void IPCConnection::join() {
  if (_thread.joinable()) _thread.join();
}

std::shared_ptr<ClientSessionReplyInterface> IPCConnection::remoteObjectProxyWithErrorHandler(
    std::function<void(const std::string&)> onError) {
  return std::make_shared<Proxy>(_outbox, std::move(onError));
}

void IPCConnection::invalidate(std::string_view reason) {
  const ActingFor acting(_peer.user);
  // The client finds its connection closed when the log says why, not before.
  _outbox->close([&] { logComplaint("IPCConnection: Closing {}: {}", _description, reason); });
}

void IPCConnection::run() {
  const ActingFor acting(_peer.user);
  const auto subject = _exportedObject->logSubject();
  const LoggingFor session(subject.get());
  const wire::QuietLibrary quiet;
  try {
    wire::SocketPort port(_socket.get());
    kj::EventLoop loop(port);
    kj::WaitScope scope(loop);
    _outbox->start(port);
    KJ_DEFER(_outbox->stop());
    // Not on the stack, where all of its receive buffer would be cleared, and so take memory.
    const auto serving = std::make_unique<Serving>(*this, port);
    serving->run(scope);
  } catch (const std::exception& exception) {
    logError("IPCConnection: {} ends by an exception: {}", _description, exception.what());
  }
  tearDown();
}

void IPCConnection::tearDown() {
  _outbox->stop();
  _socket.reset();
  if (const auto handler = std::exchange(_invalidationHandler, nullptr)) handler();
  _interruptionHandler = nullptr;
  _exportedObject = nullptr;
  _hasEnded = true;
  _ended();
}

}  // namespace corvid
