// Whether a long-lived loop still goes round.
#pragma once

#include <atomic>
#include <functional>
#include <string_view>
#include <utility>

namespace corvid {

// A loop owns one. Whoever watches asks, which wakes the loop, and looks later whether it has
// answered. Nobody who does not ask wakes anybody.
//
// Threads: any.
class Heartbeat {
 public:
  // `loop`: a literal. `wake` has the loop, which is running, go round; any thread.
  Heartbeat(std::string_view loop, std::function<void()> wake)
      : _loop(loop), _wake(std::move(wake)) {}
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  // The loop runs as long as one of these lives, on its thread.
  class Running {
   public:
    explicit Running(Heartbeat& heartbeat) : _heartbeat(heartbeat) { _heartbeat._isRunning = true; }
    ~Running() { _heartbeat._isRunning = false; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    Heartbeat& _heartbeat;
  };

  // For the loop, each time round.
  void beat() {
    if (isAsked()) _isAsked = false;
  }
  bool isAsked() const { return _isAsked.load(std::memory_order_relaxed); }

  // For whoever watches. A loop that does not run has answered.
  std::string_view loop() const { return _loop; }
  void ask() {
    if (!_isRunning) return;
    _isAsked = true;
    _wake();
  }
  bool hasAnswered() const { return !_isAsked || !_isRunning; }

 private:
  const std::string_view _loop;
  const std::function<void()> _wake;
  std::atomic<bool> _isRunning{false};
  std::atomic<bool> _isAsked{false};
};

}  // namespace corvid
