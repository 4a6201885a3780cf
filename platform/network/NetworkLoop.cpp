#include "platform/network/NetworkLoop.h"

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>

#include "base/Thread.h"

namespace corvid {

namespace {

constexpr std::size_t eventsPerWait = 64;

// Level-triggered: what a handler leaves is reported again.
bool watch(int poll, int descriptor, std::uint64_t source) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data.u64 = source;
  return epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &wanted) == 0;
}

}  // namespace

// Removes its entry from the loop when it goes.
class NetworkLoop::EntrySource final : public Timer {
 public:
  EntrySource(std::shared_ptr<NetworkLoop> loop, SourceID source, Task cancelHandler)
      : _loop(std::move(loop)), _source(source), _cancelHandler(std::move(cancelHandler)) {}
  ~EntrySource() override { _loop->remove(_source); }

  void cancel() override {
    if (_isCancelled.exchange(true)) return;
    _loop->remove(_source);
    if (_cancelHandler) _loop->async(std::move(_cancelHandler));
  }
  void setArmed(bool isArmed) override { _loop->setArmed(_source, isArmed); }
  void keepAlive(std::shared_ptr<void> object) override {
    _loop->keepAlive(_source, std::move(object));
  }

 private:
  const std::shared_ptr<NetworkLoop> _loop;
  const SourceID _source;
  std::atomic<bool> _isCancelled = false;
  Task _cancelHandler;
};

NetworkLoop::NetworkLoop(std::shared_ptr<Clock> clock, std::function<void()> onIdle)
    : _clock(std::move(clock)), _onIdle(std::move(onIdle)), _poll(epoll_create1(EPOLL_CLOEXEC)) {
  if (!_poll || !watch(_poll.get(), _wakeup.descriptor(), noSource))
    throw std::system_error(errno, std::generic_category(), "network loop");
}

void NetworkLoop::async(Task task) {
  MutexLock lock(_mutex);
  if (_isStopping) return;
  _tasks.push_back(std::move(task));
  startOrWake();
}

NetworkLoop::SourceID NetworkLoop::add(Entry entry) {
  MutexLock lock(_mutex);
  const SourceID source = ++_lastSource;
  if (_isStopping || !start() ||
      (entry.descriptor && !watch(_poll.get(), *entry.descriptor, source)))
    return noSource;
  if (entry.due) _due.emplace(*entry.due, source);
  if (entry.due || entry.descriptor) startOrWake();
  _entries.emplace(source, std::move(entry));
  return source;
}

std::unique_ptr<NetworkLoop::EntrySource> NetworkLoop::source(SourceID source, Task cancelHandler) {
  if (source == noSource) return nullptr;
  return std::make_unique<EntrySource>(shared_from_this(), source, std::move(cancelHandler));
}

std::unique_ptr<Source> NetworkLoop::after(std::chrono::milliseconds delay, Task task) {
  const SourceID once =
      add({.handler = std::make_shared<Task>(std::move(task)), .due = _clock->steadyNow() + delay});
  return std::make_unique<EntrySource>(shared_from_this(), once, nullptr);
}

std::unique_ptr<Timer> NetworkLoop::createTimer(std::chrono::milliseconds period, Task handler,
                                                Task cancelHandler) {
  return source(add({.handler = std::make_shared<Task>(std::move(handler)),
                     .start = _clock->steadyNow(),
                     .period = period}),
                std::move(cancelHandler));
}

std::unique_ptr<Source> NetworkLoop::createReadSource(DatagramSocket& socket, Task handler,
                                                      Task cancelHandler) {
  return source(add({.handler = std::make_shared<Task>(std::move(handler)),
                     .descriptor = socket.descriptor()}),
                std::move(cancelHandler));
}

void NetworkLoop::setDue(SourceID source, Entry& entry, std::optional<Clock::TimePoint> due) {
  if (entry.due) _due.erase({*entry.due, source});
  entry.due = due;
  if (due) _due.emplace(*due, source);
}

Clock::TimePoint NetworkLoop::nextTick(const Entry& entry, Clock::TimePoint now) {
  return entry.start + ((now - entry.start) / entry.period + 1) * entry.period;
}

void NetworkLoop::setArmed(SourceID timer, bool isArmed) {
  MutexLock lock(_mutex);
  const auto found = _entries.find(timer);
  if (found == _entries.end() || found->second.due.has_value() == isArmed) return;
  Entry& entry = found->second;
  setDue(timer, entry,
         isArmed ? std::optional(nextTick(entry, _clock->steadyNow())) : std::nullopt);
  if (isArmed) startOrWake();
}

void NetworkLoop::keepAlive(SourceID source, std::shared_ptr<void> object) {
  MutexLock lock(_mutex);
  const auto found = _entries.find(source);
  if (found != _entries.end()) found->second.kept.swap(object);
}

void NetworkLoop::remove(SourceID source) {
  Entry removed;  // dies without the lock: what it holds may call back
  MutexLock lock(_mutex);
  const auto found = _entries.find(source);
  if (found == _entries.end()) return;
  setDue(source, found->second, std::nullopt);
  if (found->second.descriptor)
    epoll_ctl(_poll.get(), EPOLL_CTL_DEL, *found->second.descriptor, nullptr);
  removed = std::move(found->second);
  _entries.erase(found);
}

bool NetworkLoop::start() {
  try {
    if (!_thread.joinable()) _thread = startThread("corvid-network", [this] { run(); });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

void NetworkLoop::startOrWake() {
  if (!start()) return;
  if (_isAsleep) _wakeup.wake();
  _isAsleep = false;
}

bool NetworkLoop::isBusy() const {
  MutexLock lock(_mutex);
  return _isRunning || hasWork();
}

void NetworkLoop::stop() {
  std::thread thread;
  {
    MutexLock lock(_mutex);
    _isStopping = true;
    if (_thread.joinable()) startOrWake();
    thread.swap(_thread);
  }
  if (thread.joinable()) thread.join();
  std::vector<Task> tasks;
  std::unordered_map<SourceID, Entry> entries;
  MutexLock lock(_mutex);
  _due.clear();
  tasks.swap(_tasks);
  entries.swap(_entries);
}

void NetworkLoop::run() {
  const Heartbeat::Running running(_heartbeat);
  while (runTasks()) {
    _heartbeat.beat();
    runDue();
    runReadable();
  }
}

bool NetworkLoop::runTasks() {
  std::vector<Task> tasks;
  {
    MutexLock lock(_mutex);
    if (_isStopping) return false;
    _isRunning = true;
    tasks.swap(_tasks);
  }
  for (Task& task : tasks) {
    task();
    task = nullptr;
  }
  return true;
}

std::shared_ptr<Task> NetworkLoop::takeDue(Clock::TimePoint now, Entry& finished) {
  MutexLock lock(_mutex);
  if (_isStopping || _due.empty() || _due.begin()->first > now) return nullptr;
  const SourceID source = _due.begin()->second;
  const auto found = _entries.find(source);
  std::shared_ptr<Task> handler = found->second.handler;
  if (found->second.period.count() > 0) {
    setDue(source, found->second, nextTick(found->second, now));
  } else {
    setDue(source, found->second, std::nullopt);
    finished = std::move(found->second);
    _entries.erase(found);
  }
  return handler;
}

void NetworkLoop::runDue() {
  const Clock::TimePoint now = _clock->steadyNow();
  for (;;) {
    Entry finished;
    const std::shared_ptr<Task> handler = takeDue(now, finished);
    if (!handler) return;
    (*handler)();
  }
}

int NetworkLoop::prepareToSleep() {
  constexpr int forever = -1;
  for (;;) {
    {
      MutexLock lock(_mutex);
      if (_isStopping || !_tasks.empty()) return 0;
      if (hasWork() || !_isRunning || !_onIdle) {
        _isRunning = false;
        _isAsleep = true;
        if (_due.empty()) return forever;
        const auto left = _clock->sleepTowards(_due.begin()->first);
        return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
      }
      _isRunning = false;
    }
    _onIdle();
  }
}

std::shared_ptr<Task> NetworkLoop::handlerOf(SourceID source) {
  MutexLock lock(_mutex);
  const auto found = _entries.find(source);
  return found == _entries.end() ? nullptr : found->second.handler;
}

bool NetworkLoop::answersQuestion() {
  if (!_heartbeat.isAsked()) return false;
  _wakeup.drain();
  _heartbeat.beat();
  return true;
}

void NetworkLoop::runReadable() {
  std::array<epoll_event, eventsPerWait> events;
  int count = 0;
  do {
    const int timeout = prepareToSleep();
    count = epoll_wait(_poll.get(), events.data(), static_cast<int>(events.size()), timeout);
  } while (count == 1 && events[0].data.u64 == noSource && answersQuestion());
  {
    MutexLock lock(_mutex);
    _isAsleep = false;
    if (_isStopping) return;
    _isRunning = true;
  }
  for (int i = 0; i < count; ++i) {
    const SourceID source = events[static_cast<std::size_t>(i)].data.u64;
    if (source == noSource) {
      _wakeup.drain();
    } else if (const std::shared_ptr<Task> handler = handlerOf(source)) {
      (*handler)();
    }
  }
}

}  // namespace corvid
