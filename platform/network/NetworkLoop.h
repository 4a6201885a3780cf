// The thread that runs everything that waits for a moment or a socket.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/Descriptor.h"
#include "base/Heartbeat.h"
#include "base/Mutex.h"
#include "base/Wakeup.h"
#include "platform/Clock.h"
#include "platform/Network.h"

namespace corvid {

// The thread starts with the first source or work. It sleeps in the kernel without a time limit
// while nothing is due, and is woken from other threads only while it sleeps.
//
// Threads   stop: any but its own; everything else: any. Tasks and handlers run on the loop's
//           thread without its lock.
// Errors    The constructor throws std::system_error where the system has no descriptors left. A
//           source that there is no thread for is not made; once there is one, nothing throws.
// Ownership Sources share the loop.
// Stop      Waits for what runs and drops the rest, on the caller's thread. From then on work is
//           dropped at once. The destructor stops.
class NetworkLoop final : public SerialQueue, public std::enable_shared_from_this<NetworkLoop> {
 public:
  // `onIdle` is called each time when isBusy() has become false.
  NetworkLoop(std::shared_ptr<Clock> clock, std::function<void()> onIdle);
  ~NetworkLoop() override { stop(); }
  NetworkLoop(const NetworkLoop&) = delete;
  NetworkLoop& operator=(const NetworkLoop&) = delete;

  void async(Task task) override EXCLUDES(_mutex);
  std::unique_ptr<Source> after(std::chrono::milliseconds delay, Task task) override;
  std::unique_ptr<Timer> createTimer(std::chrono::milliseconds period, Task handler,
                                     Task cancelHandler) override;
  std::unique_ptr<Source> createReadSource(DatagramSocket& socket, Task handler,
                                           Task cancelHandler) override;

  bool isBusy() const EXCLUDES(_mutex);
  void stop() EXCLUDES(_mutex);
  Heartbeat& heartbeat() { return _heartbeat; }

 private:
  class EntrySource;
  using SourceID = std::uint64_t;
  static constexpr SourceID noSource = 0;

  struct Entry {
    std::shared_ptr<Task> handler;  // shared with a call that is under way
    std::optional<int> descriptor{};
    Clock::TimePoint start{};
    std::chrono::milliseconds period{0};    // 0: once
    std::optional<Clock::TimePoint> due{};  // while armed
    std::shared_ptr<void> kept{};
  };

  // noSource after the end, and where the system refuses a descriptor or the thread.
  SourceID add(Entry entry) EXCLUDES(_mutex);
  // Nothing in place of noSource.
  std::unique_ptr<EntrySource> source(SourceID source, Task cancelHandler);
  void setArmed(SourceID timer, bool isArmed) EXCLUDES(_mutex);
  void keepAlive(SourceID source, std::shared_ptr<void> object) EXCLUDES(_mutex);
  void remove(SourceID source) EXCLUDES(_mutex);
  void setDue(SourceID source, Entry& entry, std::optional<Clock::TimePoint> due) REQUIRES(_mutex);
  static Clock::TimePoint nextTick(const Entry& entry, Clock::TimePoint now);
  // False where the system has no thread left.
  bool start() REQUIRES(_mutex);
  void startOrWake() REQUIRES(_mutex);
  bool hasWork() const REQUIRES(_mutex) { return !_tasks.empty() || !_due.empty(); }

  void run();
  // False at the end.
  bool runTasks() EXCLUDES(_mutex);
  void runDue() EXCLUDES(_mutex);
  void runReadable() EXCLUDES(_mutex);
  // Where nothing but the question woke the loop, which is no work.
  bool answersQuestion();
  // How long the thread may sleep, in milliseconds as the kernel takes them.
  int prepareToSleep() EXCLUDES(_mutex);
  // Nothing where nothing is due by then. One that fires once goes to `finished`.
  std::shared_ptr<Task> takeDue(Clock::TimePoint now, Entry& finished) EXCLUDES(_mutex);
  std::shared_ptr<Task> handlerOf(SourceID source) EXCLUDES(_mutex);

  // Constant after construction.
  const std::shared_ptr<Clock> _clock;
  const std::function<void()> _onIdle;
  const Descriptor _poll;
  const Wakeup _wakeup;
  Heartbeat _heartbeat{"network", [this] { _wakeup.wake(); }};

  mutable Mutex _mutex;
  std::vector<Task> _tasks GUARDED_BY(_mutex);
  std::unordered_map<SourceID, Entry> _entries GUARDED_BY(_mutex);
  std::set<std::pair<Clock::TimePoint, SourceID>> _due GUARDED_BY(_mutex);
  SourceID _lastSource GUARDED_BY(_mutex) = noSource;
  bool _isRunning GUARDED_BY(_mutex) = false;  // has taken work and not looked for more
  bool _isAsleep GUARDED_BY(_mutex) = false;
  bool _isStopping GUARDED_BY(_mutex) = false;
  std::thread _thread GUARDED_BY(_mutex);
};

}  // namespace corvid
