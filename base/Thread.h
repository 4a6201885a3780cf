// Threads that leave signals to the main thread.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <thread>
#include <utility>

namespace corvid {

// For its scope the calling thread, and each thread started meanwhile for good, takes no signals
// but those of its own faults.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
      sigdelset(&signals, fault);
    pthread_sigmask(SIG_SETMASK, &signals, &_before);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t _before;
};

// Runs `run` on a new thread that blocks signals, a broken pipe's among them. `name`: a literal of
// 15 bytes at most, which debuggers and the system show.
template <class Run>
std::thread startThread(const char* name, Run run) {
  const SignalsBlocked blocked;
  return std::thread([name, run = std::move(run)]() mutable {
    pthread_setname_np(pthread_self(), name);
    run();
  });
}

}  // namespace corvid
