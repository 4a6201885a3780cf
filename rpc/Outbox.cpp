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
  const bool isFirst = _deliveries.empty();
  _bytes += delivery.bytes;
  _deliveries.push_back(std::move(delivery));
  while (_deliveries.size() > limits::deliveriesWaiting || _bytes > limits::deliveryBytesWaiting)
    dropOldest();
  _hasDeliveries = !_deliveries.empty();
  // Whoever takes the first takes the others too.
  if (isFirst) wake();
  return true;
}

void Outbox::dropOldest() {
  _bytes -= _deliveries.front().bytes;
  _deliveries.pop_front();
  if (_dropped++ == 0)
    logComplaint("Outbox: {} does not take its deliveries, the oldest are dropped", _client);
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
  if (_closing || !_tasks.empty() || !_deliveries.empty()) port.wake();
}

void Outbox::stop() {
  _thread = std::thread::id();
  std::vector<Task> tasks;
  std::deque<Delivery> deliveries;
  const MutexLock lock(_mutex);
  _stopped = true;
  _port = nullptr;
  tasks.swap(_tasks);
  deliveries.swap(_deliveries);
  _hasDeliveries = false;
}

std::vector<Outbox::Task> Outbox::takeTasks() {
  const MutexLock lock(_mutex);
  return std::exchange(_tasks, {});
}

std::deque<Delivery> Outbox::takeDeliveries() {
  const MutexLock lock(_mutex);
  _bytes = 0;
  _hasDeliveries = false;
  return std::exchange(_deliveries, {});
}

bool Outbox::mustClose() const {
  const MutexLock lock(_mutex);
  return _closing;
}

}  // namespace corvid
