#include "rpc/Outbox.h"

#include "base/Complaint.h"
#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid {

namespace {

std::size_t bytesOf(const Delivery& delivery) {
  wire::Extent extent;
  if (delivery.message) extent.add(*delivery.message);
  if (delivery.payload) extent.add(*delivery.payload);
  return extent.bytes();
}

}  // namespace

bool Outbox::add(Delivery delivery) {
  delivery.bytes = bytesOf(delivery);
  const MutexLock lock(_mutex);
  if (_stopped) return false;
  while (!take(delivery.bytes)) {
    if (_deliveries.empty()) {
      countDropped();  // too large alone
      _hasDeliveries = false;
      return true;
    }
    dropOldest();
  }
  const bool isFirst = !_hasDeliveries;
  _deliveries.push_back(std::move(delivery));
  _hasDeliveries = true;
  // Whoever takes the first takes the others too.
  if (isFirst) wake();
  return true;
}

bool Outbox::take(std::size_t bytes) {
  return _deliveries.size() < limits::deliveriesWaiting &&
         _share.amount() + bytes <= limits::deliveryBytesWaiting && _share.grow(bytes);
}

void Outbox::dropOldest() {
  _share.shrink(_share.amount() - _deliveries.front().bytes);
  _deliveries.pop_front();
  countDropped();
}

void Outbox::countDropped() {
  if (_dropped++ == 0)
    logComplaint("Outbox: {} does not take its deliveries, the oldest are dropped", _client);
}

void Outbox::noteStates() {
  if (_statesNoted.exchange(true)) return;  // whoever noted it first has woken the thread
  const MutexLock lock(_mutex);
  wake();
}

void Outbox::post(Task task) {
  const MutexLock lock(_mutex);
  if (_stopped) return;
  _tasks.push_back(std::move(task));
  wake();
}

bool Outbox::close(const std::function<void()>& beforehand) {
  const MutexLock lock(_mutex);
  if (_stopped || _closing) return false;
  if (beforehand) beforehand();
  _closing = true;
  wake();
  return true;
}

std::size_t Outbox::dropped() const {
  const MutexLock lock(_mutex);
  return _dropped;
}

// The connection's own thread looks into the box at the end of each call.
void Outbox::wake() {
  if (_port != nullptr && (_closing || !onConnectionThread())) _port->wake();
}

void Outbox::start(const wire::SocketPort& port) {
  _thread = std::this_thread::get_id();
  const MutexLock lock(_mutex);
  _port = &port;
  if (_closing || !_tasks.empty() || !_deliveries.empty() || _statesNoted) port.wake();
}

void Outbox::stop() {
  _thread = std::thread::id();
  std::vector<Task> tasks;
  std::deque<Delivery> deliveries;
  const MutexLock lock(_mutex);
  _stopped = true;
  _share.shrink(0);
  _port = nullptr;
  tasks.swap(_tasks);
  deliveries.swap(_deliveries);
  _hasDeliveries = false;
}

std::vector<Outbox::Task> Outbox::takeTasks() {
  const MutexLock lock(_mutex);
  return std::exchange(_tasks, {});
}

Outbox::Batch Outbox::takeDeliveries() {
  const MutexLock lock(_mutex);
  _hasDeliveries = false;
  return {std::exchange(_deliveries, {}), std::exchange(_share, _memory->none(_user))};
}

bool Outbox::mustClose() const {
  const MutexLock lock(_mutex);
  return _closing;
}

}  // namespace corvid
