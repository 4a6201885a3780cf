#include "rpc/IPCListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/Mutex.h"
#include "rpc/Admission.h"
#include "rpc/IPCConnection.h"
#include "rpc/ServiceSocket.h"

namespace corvid {

namespace {

constexpr int starvedPause = 100;  // milliseconds

std::string errorText(int error) { return std::generic_category().message(error); }

}  // namespace

// The accept thread and the connections that it brought.
class IPCListener::Acceptor {
 public:
  Acceptor(ServiceSocket socket, Descriptor wakeup, EntitlementReader entitlements)
      : _entitlements(std::move(entitlements)),
        _wakeup(std::move(wakeup)),
        _socket(std::move(socket)) {}
  ~Acceptor();

  void setDelegate(std::shared_ptr<ListenerDelegate> delegate) { _delegate = std::move(delegate); }
  void setGate(AcceptGate gate) { _gate = std::move(gate); }
  void resume() {
    _thread = std::thread([this] { run(); });
  }
  std::size_t connections() const {
    const MutexLock lock(_mutex);
    return _connections.size();
  }

 private:
  struct Open {
    std::shared_ptr<IPCConnection> connection;
    bool ended = false;
  };
  enum class Accepted { one, none, starved, refused };

  void run();
  Accepted acceptThroughGate();
  Accepted acceptOne();
  void starve(std::string_view action, int error);
  void bring(Descriptor socket);
  bool admits(const IPCConnection::Peer& peer);
  void connectionEnded(std::uint64_t number);
  void reap();
  void wake() const;

  const EntitlementReader _entitlements;
  const Descriptor _wakeup;
  ServiceSocket _socket;
  std::shared_ptr<ListenerDelegate> _delegate;
  AcceptGate _gate;
  std::uint64_t _lastNumber = 0;
  bool _starved = false;
  bool _refused = false;  // by the gate

  mutable Mutex _mutex;
  std::vector<Open> _connections GUARDED_BY(_mutex);
  bool _stopping GUARDED_BY(_mutex) = false;
  std::thread _thread;
};

IPCListener::Acceptor::~Acceptor() {
  {
    const MutexLock lock(_mutex);
    _stopping = true;
  }
  wake();
  if (_thread.joinable()) _thread.join();
  // Nobody else changes the list from here on, only the marks in it.
  std::vector<std::shared_ptr<IPCConnection>> connections;
  {
    const MutexLock lock(_mutex);
    for (const Open& open : _connections) connections.push_back(open.connection);
  }
  for (const auto& connection : connections) connection->close();
  for (const auto& connection : connections) connection->join();
}

void IPCListener::Acceptor::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(_wakeup.get(), &one, sizeof one);
}

void IPCListener::Acceptor::run() {
  for (;;) {
    std::array<pollfd, 2> ready{{{_wakeup.get(), POLLIN, 0}, {_socket.get(), POLLIN, 0}}};
    // What is refused or cannot be accepted keeps the socket readable.
    if (_starved || _refused) ready[1].fd = -1;
    if (poll(ready.data(), ready.size(), _starved ? starvedPause : -1) < 0 && errno != EINTR) {
      starve("Waiting for connections", errno);
      std::this_thread::sleep_for(std::chrono::milliseconds(starvedPause));
    }
    if (ready[0].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto taken = read(_wakeup.get(), &count, sizeof count);
    }
    reap();
    {
      const MutexLock lock(_mutex);
      if (_stopping) return;
    }
    if (!_refused && (_starved || ready[1].revents != 0))
      while (acceptThroughGate() == Accepted::one) continue;
  }
}

IPCListener::Acceptor::Accepted IPCListener::Acceptor::acceptThroughGate() {
  if (!_gate.enter) return acceptOne();
  _refused = !_gate.enter();
  if (_refused) return Accepted::refused;
  const Accepted accepted = acceptOne();
  _gate.leave();
  return accepted;
}

IPCListener::Acceptor::Accepted IPCListener::Acceptor::acceptOne() {
  Descriptor socket(accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const int error = errno;
  if (socket) {
    _starved = false;
    bring(std::move(socket));
    return Accepted::one;
  }
  switch (error) {
    case EAGAIN: _starved = false; return Accepted::none;
    case EINTR:
    case ECONNABORTED: return Accepted::one;
    default: starve("Accepting a connection", error); return Accepted::starved;
  }
}

// One line for the whole time in which the system lacks something.
void IPCListener::Acceptor::starve(std::string_view action, int error) {
  if (!std::exchange(_starved, true))
    logError("IPCListener: {} failed, trying again: {}", action, errorText(error));
}

void IPCListener::Acceptor::bring(Descriptor socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return;
  const IPCConnection::Peer peer{++_lastNumber, credentials.pid, credentials.uid};
  if (!admits(peer)) return;
  std::shared_ptr<IPCConnection> connection;
  try {
    Dictionary entitlements = _entitlements(socket.get());
    connection =
        std::make_shared<IPCConnection>(std::move(socket), peer, std::move(entitlements),
                                        [this, number = peer.number] { connectionEnded(number); });
    const MutexLock lock(_mutex);
    _connections.push_back({connection});
  } catch (const std::exception& exception) {
    logError("IPCListener: Exception while accepting process {}: {}", peer.process,
             exception.what());
    return;
  }
  bool accepted = false;
  try {
    accepted = _delegate->shouldAcceptNewConnection(connection);
  } catch (const std::exception& exception) {
    logError("IPCListener: Exception while accepting {}: {}", connection->description(),
             exception.what());
  }
  if (accepted) return;
  connection->close();
  connectionEnded(peer.number);
}

bool IPCListener::Acceptor::admits(const IPCConnection::Peer& peer) {
  std::size_t all = 0;
  std::size_t ofUser = 0;
  {
    const MutexLock lock(_mutex);
    all = _connections.size();
    for (const Open& open : _connections) ofUser += open.connection->peer().user == peer.user;
  }
  return admitsConnection(peer, all, ofUser);
}

void IPCListener::Acceptor::connectionEnded(std::uint64_t number) {
  {
    const MutexLock lock(_mutex);
    for (Open& open : _connections)
      if (open.connection->peer().number == number) open.ended = true;
  }
  wake();
}

void IPCListener::Acceptor::reap() {
  std::vector<Open> ended;
  {
    const MutexLock lock(_mutex);
    const auto first = std::stable_partition(_connections.begin(), _connections.end(),
                                             [](const Open& open) { return !open.ended; });
    std::move(first, _connections.end(), std::back_inserter(ended));
    _connections.erase(first, _connections.end());
  }
  for (const Open& open : ended) open.connection->join();
}

IPCListener::IPCListener(std::unique_ptr<Acceptor> acceptor) : _acceptor(std::move(acceptor)) {}
IPCListener::~IPCListener() = default;

Result<std::unique_ptr<IPCListener>> IPCListener::serving(Result<ServiceSocket> socket,
                                                          EntitlementReader entitlements) {
  if (!socket) return socket.failure();
  Descriptor wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wakeup) return Failure{"Creating an event failed: " + errorText(errno), errno};
  return std::unique_ptr<IPCListener>(new IPCListener(std::make_unique<Acceptor>(
      std::move(socket).value(), std::move(wakeup), std::move(entitlements))));
}

Result<std::unique_ptr<IPCListener>> IPCListener::bind(const std::string& path,
                                                       EntitlementReader entitlements) {
  return serving(ServiceSocket::bind(path), std::move(entitlements));
}

Result<std::unique_ptr<IPCListener>> IPCListener::adopt(int socket,
                                                        EntitlementReader entitlements) {
  return serving(ServiceSocket::adopt(Descriptor(socket)), std::move(entitlements));
}

void IPCListener::setDelegate(std::shared_ptr<ListenerDelegate> delegate) {
  _acceptor->setDelegate(std::move(delegate));
}
void IPCListener::setAcceptGate(AcceptGate gate) { _acceptor->setGate(std::move(gate)); }
void IPCListener::resume() { _acceptor->resume(); }
std::size_t IPCListener::connections() const { return _acceptor->connections(); }

}  // namespace corvid
