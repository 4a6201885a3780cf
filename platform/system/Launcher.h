// The service launcher: who started the process, what it wants to know, and when the idle process
// ends.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Descriptor.h"
#include "base/Heartbeat.h"
#include "base/Mutex.h"
#include "platform/Clock.h"
#include "platform/Device.h"

namespace corvid {

// Counts what keeps the process alive and tells the launcher how it is doing.
//
// Threads   The constructor, takeListeningSocket and runLoop: main, the first before the sandbox
//           and the first thread. Everything else: any thread, also while runLoop waits.
// Ownership `clock` is shared. The launcher must outlive all who were given it.
class Launcher final : public KeepAlive {
 public:
  // Reads what the launcher left in the environment and opens the way back to it.
  explicit Launcher(std::shared_ptr<Clock> clock);

  // The listening Unix stream sockets that the process was started with, which the launcher has
  // made non-blocking: the one bound to a file named "control", and the first of the others. Empty
  // at the second call, and where the process was started without one.
  Descriptor takeListeningSocket() { return std::move(_sockets.service); }
  Descriptor takeControlSocket() { return std::move(_sockets.control); }
  struct Sockets {
    Descriptor service;
    Descriptor control;
  };

  // Whether the process was started with a listening socket for clients, taken since or not.
  bool isSocketActivated() const { return _isSocketActivated; }

  // Tells the launcher that the process serves, and one line about what it does. Without a
  // launcher that listens they do nothing.
  void notifyReady(std::string_view status);
  void notifyStatus(std::string_view status);

  void beginTransaction() override EXCLUDES(_mutex);
  void endTransaction() override EXCLUDES(_mutex);
  // As beginTransaction; but false, and nothing is begun, when runLoop has decided to return. Who
  // accepts connections asks first, and leaves the connection in the socket when refused: the
  // launcher starts the process again for it.
  [[nodiscard]] bool tryBeginTransaction() EXCLUDES(_mutex);
  // Work that `busy` speaks for has ended: the idle time counts from here. May be called with locks
  // held that `busy` takes.
  void workEnded() EXCLUDES(_mutex);

  // Has runLoop return. Any thread.
  void requestStop() EXCLUDES(_mutex);
  // What the status line says may be another; runLoop tells the launcher, at most once a second.
  // May be called with locks held that `status` takes.
  void statusChanged() EXCLUDES(_mutex);

  // Where the launcher wants to hear that the process lives, runLoop feeds its watchdog at half the
  // interval that it gives, and each time asks every loop that is watched. Once one has not
  // answered by the next time, nothing is fed, with one error line, until all have answered. Main,
  // before runLoop; `loop` is borrowed until that has returned.
  void watch(Heartbeat& loop) { _loops.push_back(&loop); }

  // Blocks while a transaction is open or `busy` says that there is other work, and then until
  // `idleExit` has passed since the last moment of either (at first: since the call); 0: without
  // end. Returns the exit status, 0; at once when a stop is requested. `busy` and `status` are
  // called without locks. Nothing polls: the thread sleeps through open transactions and wakes once
  // in an idle time otherwise, for a status that has changed, and for a watchdog.
  int runLoop(std::chrono::seconds idleExit, const std::function<bool()>& busy,
              const std::function<std::string()>& status = {}) EXCLUDES(_mutex);

 private:
  static constexpr std::chrono::seconds timeBetweenStatuses{1};

  void notify(std::string_view message);
  // Main, without locks.
  void feedWatchdog();

  // Constant after construction.
  const std::shared_ptr<Clock> _clock;
  const Descriptor _launcherSocket;
  const std::chrono::nanoseconds _timeBetweenBeats;  // 0: no watchdog
  // Main only.
  Sockets _sockets;
  std::vector<Heartbeat*> _loops;
  bool _isHungry = false;  // the watchdog is not fed
  // Constant after construction.
  const bool _isSocketActivated;

  Mutex _mutex;
  Condition _news;  // no transactions any more, a status, or the end
  unsigned _transactions GUARDED_BY(_mutex) = 0;
  bool _isEnding GUARDED_BY(_mutex) = false;
  bool _statusChanged GUARDED_BY(_mutex) = false;
  std::chrono::steady_clock::time_point _lastStatus GUARDED_BY(_mutex);
  std::chrono::steady_clock::time_point _lastWork GUARDED_BY(_mutex);
};

}  // namespace corvid
