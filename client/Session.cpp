#include "client/Session.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/UnixAddress.h"

namespace corvid::library {

namespace {

using std::chrono::steady_clock;

// Whether whoever serves the socket may: root, as whom a service manager listens, the owner of the
// socket's file, or the daemon's own user.
bool isServedByDaemon(int socket, const std::string& path) {
  ucred server{};
  socklen_t size = sizeof server;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &server, &size) != 0) return false;
  if (server.uid == 0) return true;
  struct stat file {};
  if (stat(path.c_str(), &file) == 0 && file.st_uid == server.uid) return true;
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 1024> texts;
  return getpwnam_r("corvidd", &entry, texts.data(), texts.size(), &found) == 0 &&
         found != nullptr && found->pw_uid == server.uid;
}

// Connects within the time that is left; without any, only where the daemon takes it at once.
int connectTo(const std::string& path, steady_clock::time_point deadline, Descriptor& connected) {
  const auto left =
      std::chrono::duration_cast<std::chrono::microseconds>(deadline - steady_clock::now());
  const int mode = left.count() > 0 ? 0 : SOCK_NONBLOCK;
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | mode, 0));
  if (!socket) return CORVID_ERROR_SYSTEM;
  if (left.count() > 0) {
    const timeval bound{static_cast<time_t>(left.count() / 1000000),
                        static_cast<suseconds_t>(left.count() % 1000000)};
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  }
  if (UnixAddress(path).connect(socket.get()) != 0) return CORVID_ERROR_NOT_CONNECTED;
  if (!isServedByDaemon(socket.get(), path)) return CORVID_ERROR_NOT_CONNECTED;
  connected = std::move(socket);
  return CORVID_OK;
}

}  // namespace

Session::Session(Options options) : _options(std::move(options)), _process(getpid()) {}

bool Session::isInItsProcess() const { return getpid() == _process; }

bool Session::await(Deadline deadline) {
  if (std::this_thread::get_id() == _servingThread) return false;
  return _changed.wait_until(_mutex, deadline) == std::cv_status::no_timeout ||
         steady_clock::now() < deadline;
}

int Session::awaitConnection(Deadline deadline) {
  while (_state == State::connecting)
    if (!await(deadline)) return CORVID_ERROR_NOT_CONNECTED;
  if (_closing) return CORVID_ERROR_CLOSED;
  if (_state == State::connected) return CORVID_OK;

  _state = State::connecting;
  // The serving thread does not wait.
  if (std::this_thread::get_id() == _servingThread) deadline = {};
  _mutex.unlock();
  Descriptor socket;
  const int result = connectTo(_options.socketPath, deadline, socket);
  _mutex.lock();
  _state = result == CORVID_OK ? State::connected : State::apart;
  if (result == CORVID_OK) {
    _newSocket = std::move(socket);
    _replay = _toldLast;
  }
  _changed.notify_all();
  return _closing ? CORVID_ERROR_CLOSED : result;
}

int Session::connect() {
  const Deadline until = deadline();
  const MutexLock lock(_mutex);
  return awaitConnection(until);
}

bool Session::hasRoomFor(const Call& call) const {
  if (_queue.empty()) return true;
  return _queue.size() < mostQueuedCalls && _queuedBytes + call.extent().bytes() <= mostQueuedBytes;
}

int Session::submit(std::unique_ptr<Call> call) {
  const Deadline until = deadline();
  const MutexLock lock(_mutex);
  for (;;) {
    if (const int result = awaitConnection(until); result != CORVID_OK) return result;
    if (hasRoomFor(*call)) break;
    if (!await(until)) return CORVID_ERROR_QUEUE_FULL;
  }
  call->remember(_toldLast);
  _queuedBytes += call->extent().bytes();
  _queue.push_back(std::move(call));
  if (std::exchange(_linkWaits, false)) wakeLink();
  return CORVID_OK;
}

void Session::wakeLink() {
  if (_port != nullptr) _port->wake();
}

void Session::close() {
  const Deadline until = deadline();
  const MutexLock lock(_mutex);
  _closing = true;
  while (_state == State::connecting ||
         (_state == State::connected && (_callsUnderWay || !_queue.empty())))
    if (!await(until)) break;
  _stopping = true;
  wakeLink();
  _changed.notify_all();
}

std::optional<Descriptor> Session::awaitSocket() {
  const MutexLock lock(_mutex);
  _servingThread = std::this_thread::get_id();
  while (!_newSocket && !_stopping) _changed.wait(_mutex);
  if (_stopping) return std::nullopt;
  return std::move(_newSocket);
}

std::optional<Replay> Session::attach(const wire::SocketPort& port) {
  const MutexLock lock(_mutex);
  _port = &port;
  if (_stopping) port.wake();
  _callsUnderWay = true;
  if (!std::exchange(_wasConnected, true)) return std::nullopt;
  return std::move(_replay);
}

void Session::detach() {
  const MutexLock lock(_mutex);
  _port = nullptr;
}

std::unique_ptr<Call> Session::takeFirst() {
  std::unique_ptr<Call> first = std::move(_queue.front());
  _queue.pop_front();
  _queuedBytes -= first->extent().bytes();
  return first;
}

std::unique_ptr<RemoteCall> Session::next(bool eventsToo) {
  const MutexLock lock(_mutex);
  _linkWaits = _queue.empty();
  if (_queue.empty() || (_queue.front()->isEvent() && !eventsToo)) return nullptr;
  _callsUnderWay = true;
  _changed.notify_all();
  if (!_queue.front()->isEvent())
    return std::unique_ptr<RemoteCall>(static_cast<RemoteCall*>(takeFirst().release()));
  auto batch = std::make_unique<EventBatch>();
  while (!_queue.empty() && _queue.front()->isEvent() && batch->hasRoomFor(*_queue.front()))
    batch->add(std::unique_ptr<Event>(static_cast<Event*>(takeFirst().release())));
  return batch;
}

void Session::nothingUnderWay() {
  const MutexLock lock(_mutex);
  _callsUnderWay = false;
  _changed.notify_all();
}

bool Session::isStopping() const {
  const MutexLock lock(_mutex);
  return _stopping;
}

std::deque<std::unique_ptr<Call>> Session::leave() {
  const MutexLock lock(_mutex);
  if (_state == State::connected && !_newSocket) _state = State::apart;
  _queuedBytes = 0;
  _linkWaits = false;
  _callsUnderWay = false;
  _changed.notify_all();
  return std::exchange(_queue, {});
}

}  // namespace corvid::library
