#include "platform/system/Launcher.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Log.h"
#include "base/Reading.h"
#include "base/UnixAddress.h"

// The launcher's two protocols, sockets by LISTEN_FDS and messages to NOTIFY_SOCKET, are spoken
// here directly: both are documented as stable and small, while loading libsystemd costs 1 MB of
// resident memory and a millisecond at each start.

namespace corvid {

namespace {

// The first descriptor that a launcher passes.
constexpr int firstPassedDescriptor = 3;
constexpr int mostPassedDescriptors = 1024;

template <class Number = int>
std::optional<Number> numberInEnvironment(const char* name) {
  const char* const text = std::getenv(name);
  return text ? numberFrom<Number>(text) : std::nullopt;
}

// Whether a socket is bound to a file of that name.
bool isNamed(int socket, std::string_view name) {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
  address.sun_path[sizeof address.sun_path - 1] = '\0';
  const std::string_view path = address.sun_path;
  return path.substr(path.rfind('/') + 1) == name;
}

// The listening Unix stream sockets among those passed that are of use; the others are closed.
Launcher::Sockets passedSockets() {
  Launcher::Sockets found;
  if (numberInEnvironment("LISTEN_PID") != getpid()) return found;
  const int count = std::min(numberInEnvironment("LISTEN_FDS").value_or(0), mostPassedDescriptors);
  for (int i = 0; i < count; ++i) {
    Descriptor passed(firstPassedDescriptor + i);
    Descriptor& place = isNamed(passed.get(), "control") ? found.control : found.service;
    if (!place && isListeningUnixStream(passed.get())) {
      fcntl(passed.get(), F_SETFD, FD_CLOEXEC);
      place = std::move(passed);
    } else {
      logWarning("main: Descriptor {} passed by the launcher is of no use and is closed",
                 passed.get());
    }
  }
  return found;
}

// A socket connected to NOTIFY_SOCKET. It is connected now because the sandbox lets nobody reach an
// abstract socket of the world outside later.
Descriptor socketToLauncher() {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || (path[0] != '/' && path[0] != '@')) return Descriptor();
  std::string address = path;
  if (address.size() < 2) return Descriptor();
  if (address.front() == '@') address.front() = '\0';  // an abstract name
  Descriptor launcher(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!launcher || UnixAddress(address).connect(launcher.get()) != 0) return Descriptor();
  return launcher;
}

// Half of what the launcher's watchdog waits; 0 where it has none for this process.
std::chrono::nanoseconds timeBetweenBeats() {
  constexpr std::int64_t longest = std::chrono::microseconds(std::chrono::hours(24 * 365)).count();
  if (std::getenv("WATCHDOG_PID") && numberInEnvironment("WATCHDOG_PID") != getpid())
    return std::chrono::nanoseconds(0);
  const std::int64_t interval = numberInEnvironment<std::int64_t>("WATCHDOG_USEC").value_or(0);
  return std::chrono::microseconds(std::clamp<std::int64_t>(interval, 0, longest)) / 2;
}

// One message is made of lines, so a status stays on its own.
std::string statusLine(std::string_view status) {
  std::string line = "STATUS=" + std::string(status);
  std::ranges::replace(line, '\n', ' ');
  return line;
}

}  // namespace

Launcher::Launcher(std::shared_ptr<Clock> clock)
    : _clock(std::move(clock)),
      _launcherSocket(socketToLauncher()),
      _timeBetweenBeats(_launcherSocket ? timeBetweenBeats() : std::chrono::nanoseconds(0)),
      _sockets(passedSockets()),
      _isSocketActivated(_sockets.service) {}

void Launcher::notify(std::string_view message) {
  if (!_launcherSocket) return;
  if (send(_launcherSocket.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
    logDebug("main: cannot notify the launcher: {}", std::strerror(errno));
}

void Launcher::notifyReady(std::string_view status) { notify("READY=1\n" + statusLine(status)); }

void Launcher::notifyStatus(std::string_view status) { notify(statusLine(status)); }

void Launcher::feedWatchdog() {
  const auto silent =
      std::ranges::find_if(_loops, [](const Heartbeat* loop) { return !loop->hasAnswered(); });
  const bool wasHungry = std::exchange(_isHungry, silent != _loops.end());
  if (!_isHungry)
    notify("WATCHDOG=1");
  else if (!wasHungry)
    logError("main: The loop of {} does not answer; the watchdog is not fed", (*silent)->loop());
  for (Heartbeat* const loop : _loops) loop->ask();
}

void Launcher::beginTransaction() {
  const MutexLock lock(_mutex);
  ++_transactions;
}

bool Launcher::tryBeginTransaction() {
  const MutexLock lock(_mutex);
  if (_isEnding) return false;
  ++_transactions;
  return true;
}

void Launcher::endTransaction() {
  const MutexLock lock(_mutex);
  assert(_transactions > 0);
  _lastWork = _clock->steadyNow();
  if (--_transactions == 0) _news.notify_one();
}

void Launcher::workEnded() {
  const MutexLock lock(_mutex);
  _lastWork = _clock->steadyNow();
}

// A client that connects in the moment of the idle exit is not lost. Its connection waits in the
// listening socket, which the launcher holds open as well: who accepts has either begun a
// transaction before it took the connection out, then the decision below sees it, or is refused by
// tryBeginTransaction, then the connection stays where it is, and the launcher finds the socket
// readable when the process is gone and starts it again.
int Launcher::runLoop(std::chrono::seconds idleExit, const std::function<bool()>& busy,
                      const std::function<std::string()>& status) {
  _mutex.lock();
  _lastWork = _clock->steadyNow();
  Clock::TimePoint nextBeat = _lastWork;
  while (!_isEnding) {
    std::chrono::nanoseconds untilBeat = std::chrono::nanoseconds::max();
    if (_timeBetweenBeats.count() > 0) untilBeat = _clock->sleepTowards(nextBeat);
    if (untilBeat.count() <= 0) {
      _mutex.unlock();
      feedWatchdog();
      nextBeat = _clock->steadyNow() + _timeBetweenBeats;
      _mutex.lock();
      continue;
    }
    std::chrono::nanoseconds untilStatus = std::chrono::nanoseconds::max();
    if (status && _statusChanged)
      untilStatus = _clock->sleepTowards(_lastStatus + timeBetweenStatuses);
    if (untilStatus.count() <= 0) {
      _statusChanged = false;
      _lastStatus = _clock->steadyNow();
      _mutex.unlock();
      notifyStatus(status());
      _mutex.lock();
      continue;
    }
    std::chrono::nanoseconds longest = std::min(untilBeat, untilStatus);
    if (_transactions == 0 && idleExit.count() > 0) {
      // Who says that work has ended may hold the lock that `busy` needs.
      _mutex.unlock();
      const bool isBusy = busy();
      _mutex.lock();
      if (_transactions > 0 || _isEnding) continue;
      if (isBusy) _lastWork = _clock->steadyNow();
      longest = std::min(longest, _clock->sleepTowards(_lastWork + idleExit));
      if (longest.count() <= 0) {
        _isEnding = true;
        continue;
      }
    }
    if (longest == std::chrono::nanoseconds::max())
      _news.wait(_mutex);
    else
      _news.wait_for(_mutex, longest);
  }
  _mutex.unlock();
  notify("STOPPING=1");
  return 0;
}

void Launcher::requestStop() {
  const MutexLock lock(_mutex);
  _isEnding = true;
  _news.notify_one();
}

void Launcher::statusChanged() {
  const MutexLock lock(_mutex);
  if (std::exchange(_statusChanged, true)) return;
  _news.notify_one();
}

}  // namespace corvid
