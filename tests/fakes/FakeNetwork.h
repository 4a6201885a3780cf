// A network without a wire and queues without a thread: the test runs them by hand.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Network.h"
#include "tests/fakes/FakeClock.h"

namespace corvid {

// Time is the clock's; only advance moves it. Everything on one thread.
class FakeNetwork final : public Network {
 public:
  // What became of a socket; lives on after it.
  struct SocketRecord {
    bool isOpen = true;
    bool isBound = false;
    std::optional<std::pair<std::uint32_t, std::uint16_t>> peer;
    std::vector<std::string> sent;    // datagrams that went out, oldest first
    int attempts = 0;                 // to send, successful or not
    std::deque<std::string> arrived;  // and not yet received
  };

  explicit FakeNetwork(std::shared_ptr<FakeClock> clock);
  ~FakeNetwork() override { stop(); }

  std::shared_ptr<SerialQueue> createQueue(std::string label) override;
  Result<std::unique_ptr<DatagramSocket>> openDatagramSocket() override;
  bool isBusy() const override;

  // Runs what was handed to the queues until there is nothing left.
  void runTasks();
  // Lets time pass; timers and delayed work fire at their moments.
  void advance(std::chrono::milliseconds by);
  // A datagram arrives at the newest socket; it waits there while nobody reads.
  void deliver(std::string datagram);

  // Drops everything that waits.
  void stop();

  SocketRecord& socket() { return *sockets.back(); }
  std::size_t timers() const;       // not cancelled
  std::size_t armedTimers() const;  // of these
  std::size_t readSources() const;
  std::size_t delayedTasks() const;

  std::vector<std::shared_ptr<SocketRecord>> sockets;  // all ever opened
  std::vector<std::string> labels;                     // of all queues ever made
  std::vector<std::chrono::milliseconds> periods;      // of all timers ever made
  // Faults: the system's error numbers, or refusals.
  int openError = 0;
  int bindError = 0;
  int connectError = 0;
  bool refusesTimers = false;
  bool refusesReadSources = false;
  bool refusesSends = false;

 private:
  friend class FakeSource;
  friend class FakeSocket;
  friend class FakeQueue;
  using Moment = std::chrono::steady_clock::time_point;
  enum class Kind { timer, reader, delayed };
  struct Entry {
    Kind kind;
    std::shared_ptr<Task> handler;
    Moment start{};
    std::chrono::milliseconds period{0};
    std::optional<Moment> due{};
    std::shared_ptr<void> kept{};
  };

  int add(Entry entry);
  void remove(int source);
  std::size_t count(Kind kind) const;

  const std::shared_ptr<FakeClock> _clock;
  std::deque<Task> _tasks;
  std::map<int, Entry> _entries;
  int _lastSource = 0;
};

}  // namespace corvid
