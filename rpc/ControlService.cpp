#include "rpc/ControlService.h"

#include <capnp/rpc-twoparty.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "base/ActingUser.h"
#include "base/Complaint.h"
#include "base/Log.h"
#include "base/Thread.h"
#include "base/UnixAddress.h"
#include "protocol/Limits.h"
#include "protocol/LogReason.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/SocketPort.h"
#include "rpc/BudgetAccount.h"
#include "rpc/ControlServer.h"
#include "rpc/PeerGuard.h"

namespace corvid {

namespace {

constexpr int pauseWithoutDescriptors = 1000;  // milliseconds

bool mayLook(const ucred& peer, const Dictionary& entitlements) {
  if (peer.uid == 0 || peer.uid == geteuid()) return true;
  const Value* const value = entitlements.find(ControlService::requiredEntitlement);
  return value && value->boolean().value_or(false);
}

}  // namespace

// One who looks, until he leaves or breaks a rule.
class ControlService::Connection {
 public:
  Connection(Descriptor socket, const ucred& peer, std::uint64_t number, const Budgets& budgets,
             std::shared_ptr<ControlInterface> control, std::function<void()> ended)
      : _socket(std::move(socket)),
        _user(peer.uid),
        _description(fmt::format("control connection {} of process {}, user {}", number, peer.pid,
                                 peer.uid)),
        _budgets(budgets),
        _control(std::move(control)),
        _ended(std::move(ended)),
        _outbox(std::make_shared<Outbox>(_description, budgets.kept, peer.uid)) {
    _thread = startThread("corvid-control", [this] { run(); });
  }
  ~Connection() {
    _outbox->close();
    _thread.join();
  }

  bool hasEnded() const { return _hasEnded; }

 private:
  void run() {
    const ActingFor acting(_user);
    const wire::QuietLibrary quiet;
    try {
      wire::SocketPort port(_socket.get());
      kj::EventLoop loop(port);
      kj::WaitScope scope(loop);
      _outbox->start(port);
      KJ_DEFER(_outbox->stop());
      serve(port, scope);
    } catch (const std::exception& exception) {
      logError("ControlService: {} ends by an exception: {}", _description, exception.what());
    }
    _socket.reset();
    _hasEnded = true;
    _ended();
  }

  void serve(wire::SocketPort& port, kj::WaitScope& scope) {
    auto pair = kj::newPromiseAndFulfiller<void>();
    auto end = kj::mv(pair.fulfiller);
    kj::Promise<void> farewell = nullptr;
    BudgetAccount account(_budgets, _user);
    wire::MessageSocket stream(port,
                               {[&](std::size_t bytes) { return account.admitMessage(bytes); },
                                limits::messageTime.count() * kj::SECONDS});
    PeerGuard guard(
        stream, port, account,
        [&](const std::string& rule) {
          logComplaint("ControlService: {} broke a rule: {}; closing the connection", _description,
                       rule);
          farewell = kj::evalLast([&] { end->fulfill(); }).eagerlyEvaluate(nullptr);
        },
        [&] { account.answersAreTaken(); });
    capnp::TwoPartyVatNetwork network(guard, limits::descriptorsPerMessage,
                                      capnp::rpc::twoparty::Side::SERVER);
    auto rpc =
        capnp::makeRpcServer(network, kj::heap<ControlServer>(_control, _outbox, port, _user == 0));
    std::function<kj::Promise<void>()> whenWoken = [&] {
      return port.whenWoken().then([&] {
        for (Outbox::Task& task : _outbox->takeTasks()) task();
        if (_outbox->mustClose()) end->fulfill();
        return whenWoken();
      });
    };
    auto woken = whenWoken().eagerlyEvaluate(nullptr);
    network.onDisconnect().exclusiveJoin(kj::mv(pair.promise)).wait(scope);
  }

  Descriptor _socket;
  const uid_t _user;
  const std::string _description;
  const Budgets& _budgets;
  const std::shared_ptr<ControlInterface> _control;
  const std::function<void()> _ended;
  const std::shared_ptr<Outbox> _outbox;
  std::atomic<bool> _hasEnded{false};
  std::thread _thread;
};

Result<std::unique_ptr<ControlService>> ControlService::serving(Result<ServiceSocket> socket,
                                                                EntitlementReader entitlements,
                                                                const Budgets& budgets) {
  if (!socket) return socket.failure();
  try {
    return std::unique_ptr<ControlService>(
        new ControlService(std::move(socket).value(), std::move(entitlements), budgets));
  } catch (const std::system_error& error) {
    return Failure{"Creating an event failed: " + error.code().message(), error.code().value()};
  }
}

ControlService::ControlService(ServiceSocket socket, EntitlementReader entitlements,
                               const Budgets& budgets)
    : _socket(std::move(socket)), _entitlements(std::move(entitlements)), _budgets(budgets) {}

ControlService::~ControlService() {
  _stopping = true;
  _wakeup.wake();
  if (_thread.joinable()) _thread.join();
}

void ControlService::resume(std::shared_ptr<ControlInterface> control) {
  _control = std::move(control);
  _thread = startThread("corvid-lookers", [this] { run(); });
}

void ControlService::run() {
  const Heartbeat::Running running(_heartbeat);
  int pause = -1;
  for (;;) {
    std::array<pollfd, 2> ready{
        {{_wakeup.descriptor(), POLLIN, 0}, {pause < 0 ? _socket.get() : -1, POLLIN, 0}}};
    poll(ready.data(), ready.size(), pause);
    _wakeup.drain();
    _heartbeat.beat();
    _connections.remove_if([](const auto& connection) { return connection->hasEnded(); });
    if (_stopping) break;
    pause = -1;
    for (bool mayHaveMore = true; mayHaveMore;) {
      Descriptor socket(accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      const int error = errno;
      mayHaveMore = socket || error == EINTR || error == ECONNABORTED;
      if (socket)
        bring(std::move(socket));
      else if (!mayHaveMore && error != EAGAIN)
        pause = pauseWithoutDescriptors;
    }
  }
  _connections.clear();
}

void ControlService::bring(Descriptor socket) {
  const auto peer = socketOption<ucred>(socket.get(), SO_PEERCRED);
  if (!peer) return;
  const ActingFor acting(peer->uid);
  const std::uint64_t number = ++_lastNumber;
  if (_connections.size() >= limits::controlConnections) {
    _control->refused(ControlInterface::Refusal::tooMany);
    return;
  }
  try {
    if (!mayLook(*peer, _entitlements(socket.get())())) {
      const auto why = loggingReason(Reason::controlNotEntitled);
      logDebug("control: connection {} may not use the control socket. Closing connection...",
               number);
      _control->refused(ControlInterface::Refusal::notEntitled);
      return;
    }
    _connections.push_back(std::make_unique<Connection>(std::move(socket), *peer, number, _budgets,
                                                        _control, [this] { _wakeup.wake(); }));
  } catch (const std::exception& exception) {
    logError("ControlService: Exception while accepting process {}: {}", peer->pid,
             exception.what());
  }
}

}  // namespace corvid
