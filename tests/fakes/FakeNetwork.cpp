#include "tests/fakes/FakeNetwork.h"

#include <algorithm>

namespace corvid {

class FakeSocket final : public DatagramSocket {
 public:
  FakeSocket(FakeNetwork& network, std::shared_ptr<FakeNetwork::SocketRecord> record)
      : _network(network), _record(std::move(record)) {}
  ~FakeSocket() override { _record->isOpen = false; }

  int bindToAnyPort() override {
    _record->isBound = _network.bindError == 0;
    return _network.bindError;
  }
  int connect(std::uint32_t address, std::uint16_t port) override {
    if (_network.connectError == 0) _record->peer = {address, port};
    return _network.connectError;
  }
  bool send(std::string_view datagram) override {
    ++_record->attempts;
    if (_network.refusesSends) return false;
    _record->sent.emplace_back(datagram);
    return true;
  }
  std::optional<std::size_t> receive(std::span<char> buffer) override {
    if (_record->arrived.empty()) return std::nullopt;
    const std::string datagram = std::move(_record->arrived.front());
    _record->arrived.pop_front();
    const std::size_t size = std::min(datagram.size(), buffer.size());
    std::copy_n(datagram.begin(), size, buffer.begin());
    return size;
  }
  int descriptor() const override { return -1; }

 private:
  FakeNetwork& _network;
  const std::shared_ptr<FakeNetwork::SocketRecord> _record;
};

class FakeSource final : public Timer {
 public:
  FakeSource(FakeNetwork& network, int source, Task cancelHandler)
      : _network(network), _source(source), _cancelHandler(std::move(cancelHandler)) {}
  ~FakeSource() override { _network.remove(_source); }

  void cancel() override {
    _network.remove(_source);
    if (_cancelHandler) _network._tasks.push_back(std::exchange(_cancelHandler, nullptr));
  }
  void setArmed(bool isArmed) override {
    const auto found = _network._entries.find(_source);
    if (found == _network._entries.end()) return;
    FakeNetwork::Entry& entry = found->second;
    const auto now = _network._clock->steadyNow();
    if (!isArmed)
      entry.due.reset();
    else if (!entry.due)
      entry.due = entry.start + ((now - entry.start) / entry.period + 1) * entry.period;
  }
  void keepAlive(std::shared_ptr<void> object) override {
    const auto found = _network._entries.find(_source);
    if (found != _network._entries.end()) found->second.kept = std::move(object);
  }

 private:
  FakeNetwork& _network;
  const int _source;
  Task _cancelHandler;
};

class FakeQueue final : public SerialQueue {
 public:
  explicit FakeQueue(FakeNetwork& network) : _network(network) {}

  void async(Task task) override { _network._tasks.push_back(std::move(task)); }
  std::unique_ptr<Source> after(std::chrono::milliseconds delay, Task task) override {
    const int source = _network.add({.kind = FakeNetwork::Kind::delayed,
                                     .handler = std::make_shared<Task>(std::move(task)),
                                     .due = _network._clock->steadyNow() + delay});
    return std::make_unique<FakeSource>(_network, source, nullptr);
  }
  std::unique_ptr<Timer> createTimer(std::chrono::milliseconds period, Task handler,
                                     Task cancelHandler) override {
    if (_network.refusesTimers) return nullptr;
    _network.periods.push_back(period);
    const int source = _network.add({.kind = FakeNetwork::Kind::timer,
                                     .handler = std::make_shared<Task>(std::move(handler)),
                                     .start = _network._clock->steadyNow(),
                                     .period = period});
    return std::make_unique<FakeSource>(_network, source, std::move(cancelHandler));
  }
  std::unique_ptr<Source> createReadSource(DatagramSocket&, Task handler,
                                           Task cancelHandler) override {
    if (_network.refusesReadSources) return nullptr;
    const int source = _network.add(
        {.kind = FakeNetwork::Kind::reader, .handler = std::make_shared<Task>(std::move(handler))});
    return std::make_unique<FakeSource>(_network, source, std::move(cancelHandler));
  }

 private:
  FakeNetwork& _network;
};

FakeNetwork::FakeNetwork(std::shared_ptr<FakeClock> clock) : _clock(std::move(clock)) {}

void FakeNetwork::stop() {
  // What they hold may have sources of its own, which remove themselves.
  const std::deque<Task> tasks = std::exchange(_tasks, {});
  const std::map<int, Entry> entries = std::exchange(_entries, {});
}

std::shared_ptr<SerialQueue> FakeNetwork::createQueue(std::string label) {
  labels.push_back(std::move(label));
  return std::make_shared<FakeQueue>(*this);
}

Result<std::unique_ptr<DatagramSocket>> FakeNetwork::openDatagramSocket() {
  if (openError != 0) return Failure{"no socket", openError};
  sockets.push_back(std::make_shared<SocketRecord>());
  return std::unique_ptr<DatagramSocket>(std::make_unique<FakeSocket>(*this, sockets.back()));
}

bool FakeNetwork::isBusy() const {
  return !_tasks.empty() || armedTimers() > 0 || delayedTasks() > 0;
}

int FakeNetwork::add(Entry entry) {
  _entries.emplace(++_lastSource, std::move(entry));
  return _lastSource;
}

void FakeNetwork::remove(int source) { const auto removed = _entries.extract(source); }

void FakeNetwork::runTasks() {
  while (!_tasks.empty()) {
    const Task task = std::move(_tasks.front());
    _tasks.pop_front();
    task();
  }
}

void FakeNetwork::advance(std::chrono::milliseconds by) {
  const Moment end = _clock->steadyNow() + by;
  for (;;) {
    runTasks();
    const auto next = std::ranges::min_element(
        _entries, {}, [](const auto& entry) { return entry.second.due.value_or(Moment::max()); });
    if (next == _entries.end() || next->second.due.value_or(Moment::max()) > end) break;
    Entry& entry = next->second;
    _clock->advance(
        std::chrono::duration_cast<std::chrono::microseconds>(*entry.due - _clock->steadyNow()));
    const std::shared_ptr<Task> handler = entry.handler;
    if (entry.kind == Kind::timer)
      entry.due = *entry.due + entry.period;
    else
      remove(next->first);
    (*handler)();
  }
  _clock->advance(std::chrono::duration_cast<std::chrono::microseconds>(end - _clock->steadyNow()));
}

void FakeNetwork::deliver(std::string datagram) {
  const std::shared_ptr<SocketRecord> record = sockets.back();
  record->arrived.push_back(std::move(datagram));
  for (std::size_t left = record->arrived.size(); left > 0; --left) {
    const auto reader = std::ranges::find_if(
        _entries, [](const auto& entry) { return entry.second.kind == Kind::reader; });
    if (reader == _entries.end()) return;
    const std::shared_ptr<Task> handler = reader->second.handler;
    (*handler)();
  }
}

std::size_t FakeNetwork::count(Kind kind) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      _entries, [&](const auto& entry) { return entry.second.kind == kind; }));
}
std::size_t FakeNetwork::timers() const { return count(Kind::timer); }
std::size_t FakeNetwork::armedTimers() const {
  return static_cast<std::size_t>(std::ranges::count_if(_entries, [](const auto& entry) {
    return entry.second.kind == Kind::timer && entry.second.due;
  }));
}
std::size_t FakeNetwork::readSources() const { return count(Kind::reader); }
std::size_t FakeNetwork::delayedTasks() const { return count(Kind::delayed); }

}  // namespace corvid
