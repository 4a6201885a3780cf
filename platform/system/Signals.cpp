#include "platform/system/Signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/Thread.h"

namespace corvid {

Signals::Signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  _signals = Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (_signals) pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Signals::~Signals() {
  _isEnding = true;
  _wakeup.wake();
  if (_thread.joinable()) _thread.join();
}

void Signals::watch(std::function<void(int signal)> received) {
  if (!_signals) return;
  _received = std::move(received);
  _thread = startThread("corvid-signals", [this] { run(); });
}

void Signals::run() {
  const Heartbeat::Running running(_heartbeat);
  for (;;) {
    std::array<pollfd, 2> ready{{{_wakeup.descriptor(), POLLIN, 0}, {_signals.get(), POLLIN, 0}}};
    poll(ready.data(), ready.size(), -1);
    _wakeup.drain();
    if (_isEnding) return;
    _heartbeat.beat();
    signalfd_siginfo info{};
    while (read(_signals.get(), &info, sizeof info) == sizeof info)
      _received(static_cast<int>(info.ssi_signo));
  }
}

}  // namespace corvid
