#include "client/Session.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include "base/UnixAddress.h"
#include "client/Opaque.h"

namespace corvid::library {

namespace {

using std::chrono::steady_clock;

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
  connected = std::move(socket);
  return CORVID_OK;
}

// A thread of the library takes no signals of the host.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t _before;
};

std::optional<Dictionary> decoded(bool present, const auto& get) {
  if (!present) return std::nullopt;
  return wire::ValueDecoder().dictionary(get());
}

const corvid_dictionary_t* orNone(const std::optional<Dictionary>& dictionary) {
  return dictionary ? outside(&*dictionary) : nullptr;
}

}  // namespace

Session::Session(Options options) : _options(std::move(options)), _process(getpid()) {}

void Session::start() {
  const SignalsBlocked blocked;
  _thread = std::thread([self = shared_from_this()] { self->run(); });
  _threadID = _thread.get_id();
}

bool Session::isInItsProcess() const { return getpid() == _process; }

Session::Deadline Session::deadline() const { return steady_clock::now() + _options.deadline; }

bool Session::await(Deadline deadline) {
  if (isOwnThread()) return false;
  return _changed.wait_until(_mutex, deadline) == std::cv_status::no_timeout ||
         steady_clock::now() < deadline;
}

// ---- Any thread

int Session::awaitConnection(Deadline deadline) {
  while (_state == State::connecting)
    if (!await(deadline)) return CORVID_ERROR_NOT_CONNECTED;
  if (_closing) return CORVID_ERROR_CLOSED;
  if (_state == State::connected) return CORVID_OK;

  _state = State::connecting;
  _mutex.unlock();
  Descriptor socket;
  const int result = connectTo(_options.socketPath, isOwnThread() ? Deadline() : deadline, socket);
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
  {
    const MutexLock lock(_mutex);
    _closing = true;
    while (_state == State::connecting ||
           (_state == State::connected && (_callsUnderWay || !_queue.empty())))
      if (!await(until)) break;
    _stopping = true;
    wakeLink();
    _changed.notify_all();
  }
  if (isOwnThread())
    _thread.detach();
  else
    _thread.join();
}

// ---- The session's thread

void Session::run() {
  const wire::QuietLibrary quiet;
  Descriptor socket;
  while (awaitSocket(socket)) serve(std::move(socket));
  for (const auto& call : leave()) call->fail(CORVID_ERROR_CLOSED);
  if (_options.handlers.released != nullptr) _options.handlers.released(_options.handlers.context);
}

bool Session::awaitSocket(Descriptor& socket) {
  const MutexLock lock(_mutex);
  while (!_newSocket && !_stopping) _changed.wait(_mutex);
  socket = std::move(_newSocket);
  return !_stopping;
}

void Session::serve(Descriptor socket) {
  std::vector<std::unique_ptr<RemoteCall>> underWay;
  try {
    wire::SocketPort port(socket.get());
    kj::EventLoop loop(port);
    kj::WaitScope scope(loop);
    Link link(*this, port);
    bool again = false;
    Replay replay;
    {
      const MutexLock lock(_mutex);
      _port = &port;
      if (_stopping) port.wake();
      _callsUnderWay = true;
      again = std::exchange(_wasConnected, true);
      replay = std::move(_replay);
    }
    KJ_DEFER({
      const MutexLock lock(_mutex);
      _port = nullptr;
    });
    if (again) link.replay(replay);
    link.run(scope);
    underWay = link.takeUnfinished();
  } catch (const std::exception&) {
    // No descriptor for the event loop: the connection ends as if it were lost.
  }
  socket.reset();

  const std::vector<std::unique_ptr<Call>> waiting = leave();
  const bool stopping = isStopping();
  const int error = stopping ? CORVID_ERROR_CLOSED : CORVID_ERROR_CONNECTION_LOST;
  for (const auto& call : underWay) call->fail(error);
  for (const auto& call : waiting) call->fail(error);
  if (!stopping && _options.handlers.invalidated != nullptr)
    _options.handlers.invalidated(_options.handlers.context);
}

// Gives up the connection with the calls that wait for it. Calls that come from here on wait for
// the next one.
std::vector<std::unique_ptr<Call>> Session::leave() {
  std::vector<std::unique_ptr<Call>> waiting;
  const MutexLock lock(_mutex);
  if (_state == State::connected && !_newSocket) _state = State::apart;
  std::move(_queue.begin(), _queue.end(), std::back_inserter(waiting));
  _queue.clear();
  _queuedBytes = 0;
  _linkWaits = false;
  _callsUnderWay = false;
  _changed.notify_all();
  return waiting;
}

std::unique_ptr<RemoteCall> Session::nextCall(bool eventsToo) {
  const MutexLock lock(_mutex);
  if (_queue.empty()) {
    _linkWaits = true;
    return nullptr;
  }
  std::unique_ptr<RemoteCall> next;
  if (!_queue.front()->isEvent()) {
    next.reset(static_cast<RemoteCall*>(_queue.front().release()));
    _queuedBytes -= next->extent().bytes();
    _queue.pop_front();
  } else if (eventsToo) {
    auto batch = std::make_unique<EventBatch>();
    while (!_queue.empty() && _queue.front()->isEvent()) {
      const std::size_t bytes = _queue.front()->extent().bytes();
      if (!batch->add(_queue.front())) break;
      _queuedBytes -= bytes;
      _queue.pop_front();
    }
    next = std::move(batch);
  } else {
    return nullptr;
  }
  _callsUnderWay = true;
  _changed.notify_all();
  return next;
}

void Session::nothingUnderWay() {
  const MutexLock lock(_mutex);
  _callsUnderWay = false;
  _changed.notify_all();
}

bool Session::isStopping() {
  const MutexLock lock(_mutex);
  return _stopping;
}

void Session::reconnected() {
  if (!isStopping() && _options.handlers.reconnected != nullptr)
    _options.handlers.reconnected(_options.handlers.context);
}

void Session::received(wire::Delivery::Reader delivery) {
  if (_options.handlers.message == nullptr || isStopping()) return;
  std::optional<Dictionary> message;
  std::optional<Dictionary> payload;
  try {
    message = decoded(delivery.hasMessage(), [&] { return delivery.getMessage(); });
    payload = decoded(delivery.hasPayload(), [&] { return delivery.getPayload(); });
  } catch (const std::exception&) {
    return;  // not something that this library knows; the next one may be
  }
  _options.handlers.message(_options.handlers.context, orNone(message), delivery.getTimestamp(),
                            delivery.getCategory(), delivery.getType(), orNone(payload));
}

}  // namespace corvid::library
