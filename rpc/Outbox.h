// What other threads hand to a connection's thread: deliveries for the client, that its states have
// changed, and the outcome of calls that were answered elsewhere.
//
// Threads   add, noteStates, post, close, dropped: any, never waiting. The rest: the connection's.
// Limits    limits::deliveriesWaiting and limits::deliveryBytesWaiting, and what the client's user
//           may have kept; past any the oldest deliveries are dropped, counted, and logged once.
// Life      Outlives the connection where replies or proxies do, and takes nothing after stop().
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "base/Value.h"
#include "platform/SharedBudget.h"
#include "protocol/wire/SocketPort.h"

namespace corvid {

struct Delivery {
  std::optional<Dictionary> message;
  double timestamp = 0;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::optional<Dictionary> payload;
  std::size_t bytes = 0;  // on the wire; counted by the outbox
};

class Outbox {
 public:
  using Task = std::function<void()>;

  // What is sent together, and what of the memory that is kept for clients it holds.
  struct Batch {
    std::deque<Delivery> deliveries;
    SharedBudget::Share memory;
  };

  // `client` names the client in log lines.
  Outbox(std::string client, std::shared_ptr<SharedBudget> memory, std::uint32_t user)
      : _client(std::move(client)), _memory(std::move(memory)), _user(user) {}

  // False where the connection is gone.
  bool add(Delivery delivery) EXCLUDES(_mutex);
  // The session's states may be others than before: the connection's thread is to look.
  void noteStates() EXCLUDES(_mutex);
  // Runs `task` on the connection's thread. A task that comes too late is destroyed unrun.
  void post(Task task) EXCLUDES(_mutex);
  // Asks the connection to end, after `beforehand`, which may not call back. False, and nothing is
  // done, where it was asked before or is gone.
  bool close(const std::function<void()>& beforehand = {}) EXCLUDES(_mutex);
  std::size_t dropped() const EXCLUDES(_mutex);

  // From here on this thread is the connection's and `port` its event loop's.
  void start(const wire::SocketPort& port) EXCLUDES(_mutex);
  // Takes nothing more and drops what waits.
  void stop() EXCLUDES(_mutex);
  bool onConnectionThread() const { return _thread == std::this_thread::get_id(); }
  bool hasDeliveries() const { return _hasDeliveries; }
  // Whether states were noted since the last time.
  bool takeStatesNote() { return _statesNoted.exchange(false); }
  std::vector<Task> takeTasks() EXCLUDES(_mutex);
  Batch takeDeliveries() EXCLUDES(_mutex);
  bool mustClose() const EXCLUDES(_mutex);

 private:
  // Memory for one delivery more, where there is room for it.
  bool take(std::size_t bytes) REQUIRES(_mutex);
  void dropOldest() REQUIRES(_mutex);
  void countDropped() REQUIRES(_mutex);
  void wake() REQUIRES(_mutex);

  const std::string _client;
  const std::shared_ptr<SharedBudget> _memory;
  const std::uint32_t _user;
  std::atomic<std::thread::id> _thread;
  std::atomic<bool> _hasDeliveries{false};
  std::atomic<bool> _statesNoted{false};

  mutable Mutex _mutex;
  const wire::SocketPort* _port GUARDED_BY(_mutex) = nullptr;
  std::vector<Task> _tasks GUARDED_BY(_mutex);
  std::deque<Delivery> _deliveries GUARDED_BY(_mutex);
  SharedBudget::Share _share GUARDED_BY(_mutex) = _memory->none(_user);  // of those
  std::size_t _dropped GUARDED_BY(_mutex) = 0;
  bool _closing GUARDED_BY(_mutex) = false;
  bool _stopped GUARDED_BY(_mutex) = false;
};

}  // namespace corvid
