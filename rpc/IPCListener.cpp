#include "rpc/IPCListener.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "base/ActingUser.h"
#include "base/Complaint.h"
#include "base/Log.h"
#include "base/Share.h"
#include "base/Thread.h"
#include "base/UnixAddress.h"
#include "protocol/Limits.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int starvedPause = 100;  // milliseconds

// From the first change of entitlements to the look at them, so that several at once, or a file
// that is being written, are one.
constexpr milliseconds settlingTime{250};

// Whether what the daemon does for its clients has descriptors left beside this one, the lowest
// that was free.
bool leavesReserve(int descriptor) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return true;
  const rlim_t reserve = std::min<rlim_t>(limits::descriptorReserve, limit.rlim_cur / 4);
  return static_cast<rlim_t>(descriptor) < limit.rlim_cur - reserve;
}

}  // namespace

bool admitsConnection(pid_t process, uid_t user, std::size_t all, std::size_t ofUser) {
  const bool forUser = all < limits::connections;
  const std::size_t most =
      forUser ? std::min(limits::connectionsPerUser, shareBeside(all - ofUser, limits::connections))
              : 0;
  if (ofUser < most) return true;
  const auto why = loggingReason(Reason::tooManyConnections);
  logComplaint("IPCListener: Process {}, user {} opened more than {} connections{}; closing it",
               process, user, forUser ? most : limits::connections, forUser ? " of one user" : "");
  return false;
}

IPCListener::IPCListener(ServiceSocket socket, EntitlementReader entitlements,
                         IPCConnection::Shared shared)
    : _entitlements(std::move(entitlements)), _shared(shared), _socket(std::move(socket)) {}

IPCListener::~IPCListener() {
  close();
  std::vector<std::shared_ptr<IPCConnection>> connections;
  {
    const MutexLock lock(_mutex);
    connections.swap(_connections);
  }
  for (const auto& connection : connections) connection->join();
}

void IPCListener::close() {
  {
    const MutexLock lock(_mutex);
    _stopping = true;
  }
  _wakeup.wake();
  if (_thread.joinable()) _thread.join();
  std::vector<std::shared_ptr<IPCConnection>> connections;
  {
    const MutexLock lock(_mutex);
    connections = _connections;
  }
  for (const auto& connection : connections) connection->close();
}

void IPCListener::run() {
  const Heartbeat::Running running(_heartbeat);
  for (;;) {
    std::array<pollfd, 3> ready{{{_wakeup.descriptor(), POLLIN, 0},
                                 {_socket.get(), POLLIN, 0},
                                 {_examination ? -1 : _changes.descriptor, POLLIN, 0}}};
    // What is refused or cannot be accepted keeps the socket readable.
    if (_starved || _refused) ready[1].fd = -1;
    if (poll(ready.data(), ready.size(), longestWait()) < 0 && errno != EINTR) {
      starve("Waiting for connections", errno);
      std::this_thread::sleep_for(milliseconds(starvedPause));
    }
    _wakeup.drain();
    _heartbeat.beat();
    reap();
    {
      const MutexLock lock(_mutex);
      if (_stopping) return;
    }
    if (ready[2].revents != 0) _examination = steady_clock::now() + settlingTime;
    if (_examination && steady_clock::now() >= *_examination) closeWhoLostEntitlements();
    if (!_refused && (_starved || ready[1].revents != 0))
      while (acceptThroughGate()) continue;
  }
}

int IPCListener::longestWait() const {
  int wait = _starved ? starvedPause : -1;
  if (_examination) {
    const auto left = std::chrono::ceil<milliseconds>(*_examination - steady_clock::now()).count();
    const int untilThen = static_cast<int>(std::max<milliseconds::rep>(left, 0));
    wait = _starved ? std::min(wait, untilThen) : untilThen;
  }
  return wait;
}

bool IPCListener::acceptThroughGate() {
  if (!_gate.enter) return acceptOne();
  _refused = !_gate.enter();
  if (_refused) return false;
  const bool mayHaveMore = acceptOne();
  _gate.leave();
  return mayHaveMore;
}

bool IPCListener::acceptOne() {
  Descriptor socket(accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const int error = errno;
  if (socket) {
    _starved = false;
    bring(std::move(socket));
    return true;
  }
  if (error == EINTR || error == ECONNABORTED) return true;
  if (error == EAGAIN)
    _starved = false;
  else
    starve("Accepting a connection", error);
  return false;
}

// One line for the whole time in which the system lacks something.
void IPCListener::starve(std::string_view action, int error) {
  if (!std::exchange(_starved, true))
    logError("IPCListener: {} failed, trying again: {}", action,
             std::generic_category().message(error));
}

void IPCListener::bring(Descriptor socket) {
  const auto credentials = socketOption<ucred>(socket.get(), SO_PEERCRED);
  if (!credentials) return;
  const IPCConnection::Peer peer{++_lastNumber, credentials->pid, credentials->uid};
  const ActingFor acting(peer.user);
  if (!admits(peer.process, peer.user)) {
    _delegate->tooManyConnections();
    return;
  }
  if (!leavesReserve(socket.get())) {
    const auto why = loggingReason(Reason::tooManyConnections);
    _delegate->tooManyConnections();
    logComplaint(
        "IPCListener: Too few descriptors are left for a connection of process {}, user {}; closing it",
        peer.process, peer.user);
    return;
  }
  std::shared_ptr<IPCConnection> connection;
  try {
    PeerEntitlements entitlements = _entitlements(socket.get());
    connection = std::make_shared<IPCConnection>(std::move(socket), peer, std::move(entitlements),
                                                 _shared, [this] { _wakeup.wake(); });
    const MutexLock lock(_mutex);
    _connections.push_back(connection);
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
  connection->join();  // the delegate may have resumed it
  const MutexLock lock(_mutex);
  std::erase(_connections, connection);
}

bool IPCListener::admits(pid_t process, uid_t user) const {
  std::size_t all = 0;
  std::size_t ofUser = 0;
  {
    const MutexLock lock(_mutex);
    // One that has ended holds no place, though its thread may not have been joined.
    for (const auto& connection : _connections) {
      if (connection->hasEnded()) continue;
      ++all;
      ofUser += connection->peer().user == user;
    }
  }
  return admitsConnection(process, user, all, ofUser);
}

void IPCListener::reap() {
  std::vector<std::shared_ptr<IPCConnection>> ended;
  {
    const MutexLock lock(_mutex);
    const auto first =
        std::stable_partition(_connections.begin(), _connections.end(),
                              [](const auto& connection) { return !connection->hasEnded(); });
    std::move(first, _connections.end(), std::back_inserter(ended));
    _connections.erase(first, _connections.end());
  }
  for (const auto& connection : ended) connection->join();
}

void IPCListener::closeWhoLostEntitlements() {
  _examination.reset();
  _changes.take();
  std::vector<std::shared_ptr<IPCConnection>> connections;
  {
    const MutexLock lock(_mutex);
    connections = _connections;
  }
  const auto why = loggingReason(Reason::notEntitled);
  for (const auto& connection : connections) {
    if (connection->hasEnded()) continue;
    try {
      if (connection->hasLostEntitlements())
        connection->invalidate("an entitlement was taken back");
    } catch (const std::exception& exception) {
      connection->invalidate(exception.what());
    }
  }
}

Result<std::unique_ptr<IPCListener>> IPCListener::serving(Result<ServiceSocket> socket,
                                                          EntitlementReader entitlements,
                                                          IPCConnection::Shared shared) {
  if (!socket) return socket.failure();
  try {
    return std::unique_ptr<IPCListener>(
        new IPCListener(std::move(socket).value(), std::move(entitlements), shared));
  } catch (const std::system_error& error) {
    return Failure{"Creating an event failed: " + error.code().message(), error.code().value()};
  }
}

void IPCListener::resume(std::shared_ptr<ListenerDelegate> delegate, AcceptGate gate,
                         EntitlementChanges changes) {
  _delegate = std::move(delegate);
  _gate = std::move(gate);
  _changes = std::move(changes);
  _thread = startThread("corvid-accept", [this] { run(); });
}

std::size_t IPCListener::connections() const {
  const MutexLock lock(_mutex);
  return static_cast<std::size_t>(std::ranges::count_if(
      _connections, [](const auto& connection) { return !connection->hasEnded(); }));
}

}  // namespace corvid
