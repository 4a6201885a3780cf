#include "client/Session.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/UnixAddress.h"
#include "client/Link.h"
#include "client/TestSink.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

using std::chrono::steady_clock;

// What travels in one call: enough that its cost no longer counts, little enough that the daemon's
// answers keep coming.
constexpr std::size_t mostEvents = 64;
constexpr std::size_t mostWords = (std::size_t{256} << 10) / wire::Extent::wordBytes;
static_assert(mostEvents <= limits::messagesPerCall);

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

Session::Session(Options options)
    : _options(std::move(options)), _process(getpid()), _callbacks(_options.dispatches) {}

bool Session::isInItsProcess() const { return getpid() == _process; }

bool Session::await(Deadline deadline) {
  if (_callbacks.runHere()) return false;
  return _changed.wait_until(_mutex, deadline) == std::cv_status::no_timeout ||
         steady_clock::now() < deadline;
}

int Session::connectWithin(Deadline deadline, Descriptor& socket) const {
  if (!_options.sink) return connectTo(_options.socketPath, deadline, socket);
  return _options.sink->isReachable() ? CORVID_OK : CORVID_ERROR_NOT_CONNECTED;
}

int Session::awaitConnected(Deadline deadline) {
  while (_state == State::connecting)
    if (!await(deadline)) return CORVID_ERROR_NOT_CONNECTED;
  if (_closing) return CORVID_ERROR_CLOSED;
  if (_state == State::connected) return CORVID_OK;

  _state = State::connecting;
  if (_callbacks.runHere()) deadline = {};  // a callback does not wait
  _mutex.unlock();
  Descriptor socket;
  const int result = connectWithin(deadline, socket);
  _mutex.lock();
  _state = result == CORVID_OK ? State::connected : State::apart;
  if (result == CORVID_OK) {
    const bool isFirst = !std::exchange(_wasConnected, true);
    _new = Connection{std::move(socket), _wishes, isFirst};
  }
  _changed.notify_all();
  return _closing ? CORVID_ERROR_CLOSED : result;
}

int Session::connect() {
  const Deadline until = deadline();
  const MutexLock lock(_mutex);
  return awaitConnected(until);
}

bool Session::hasRoomFor(const Call& call) const {
  if (_queue.empty()) return true;
  return _queue.size() < mostQueuedCalls && _queuedBytes + call.extent.bytes() <= mostQueuedBytes;
}

int Session::enqueue(SharedCall call, Deadline until) {
  for (;;) {
    if (const int result = awaitConnected(until); result != CORVID_OK) {
      if (result == CORVID_ERROR_NOT_CONNECTED) _wishes.note(call->request);
      return result;
    }
    if (hasRoomFor(*call)) break;
    if (!await(until)) return CORVID_ERROR_QUEUE_FULL;
  }
  _wishes.note(call->request);
  _queuedBytes += call->extent.bytes();
  if (_options.answerDeadline && call->completion.isHeard())
    call->expires = steady_clock::now() + *_options.answerDeadline;
  _queue.push_back(std::move(call));
  return CORVID_OK;
}

int Session::submit(SharedCall call) {
  const Deadline until = deadline();
  std::shared_ptr<Link> idle;
  {
    const MutexLock lock(_mutex);
    const int result = enqueue(std::move(call), until);
    if (result != CORVID_OK || !std::exchange(_linkWaits, false)) return result;
    if (!_callsUnderWay && !_callbacks.runHere()) idle = _link;
  }
  if (!idle || !idle->sendMeanwhile()) _news.wake();
  return CORVID_OK;
}

void Session::dispatch() {
  _callbacks.dispatch([this] { _news.wake(); });
}

void Session::close() {
  const Deadline until = deadline();
  const MutexLock lock(_mutex);
  _closing = true;
  _news.wake();  // nobody takes callbacks any more: they need no longer be waited for
  while (_state == State::connecting ||
         (_state == State::connected && (_callsUnderWay || !_queue.empty())))
    if (!await(until)) break;
  _stopping = true;
  _news.wake();
  _changed.notify_all();
}

std::optional<Session::Connection> Session::awaitConnection() {
  const MutexLock lock(_mutex);
  while (!_new && !_stopping) _changed.wait(_mutex);
  if (_stopping) return std::nullopt;
  _callsUnderWay = true;
  return std::exchange(_new, std::nullopt);
}

SharedCall Session::takeFirst() {
  SharedCall first = std::move(_queue.front());
  _queue.pop_front();
  _queuedBytes -= first->extent.bytes();
  return first;
}

std::optional<Parcel> Session::next(bool eventsToo) {
  const MutexLock lock(_mutex);
  _linkWaits = _queue.empty();
  if (_queue.empty() || (_queue.front()->request.isEvent() && !eventsToo)) return std::nullopt;
  _callsUnderWay = true;
  _changed.notify_all();
  Parcel parcel{{takeFirst()}};
  if (!parcel.isBatch()) return parcel;
  wire::Extent together = parcel.calls.front()->extent;
  while (!_queue.empty() && _queue.front()->request.isEvent() && parcel.calls.size() < mostEvents) {
    const wire::Extent& extent = _queue.front()->extent;
    together.words += extent.words;
    together.values += extent.values;
    if (together.words > mostWords || together.values > limits::valuesPerMessage) break;
    parcel.calls.push_back(takeFirst());
  }
  return parcel;
}

void Session::offer(std::shared_ptr<Link> link) {
  const MutexLock lock(_mutex);
  _link = std::move(link);
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

bool Session::hostIsBusy() const {
  if (!_callbacks.wait() || !_callbacks.isFull()) return false;
  const MutexLock lock(_mutex);
  return !_closing;
}

Session::Time Session::addExpired(Time now, std::vector<SharedCall>& expired) const {
  const MutexLock lock(_mutex);
  for (const SharedCall& call : _queue) {
    if (call->hasEnded || call->expires == Time::max()) continue;
    if (call->expires > now) return call->expires;  // those behind it came later
    expired.push_back(call);
  }
  return Time::max();
}

std::deque<SharedCall> Session::leave() {
  const MutexLock lock(_mutex);
  if (_state == State::connected && !_new) _state = State::apart;
  _link = nullptr;
  _queuedBytes = 0;
  _linkWaits = false;
  _callsUnderWay = false;
  _changed.notify_all();
  return std::exchange(_queue, {});
}

}  // namespace corvid::library
