#include "platform/network/SystemNetwork.h"

#include <atomic>
#include <utility>

#include "platform/network/NetworkLoop.h"
#include "platform/network/UDPSocket.h"

namespace corvid {

namespace {

// Removes its source from the loop when it goes.
class LoopSource final : public Timer {
 public:
  LoopSource(std::shared_ptr<NetworkLoop> loop, NetworkLoop::SourceID source, Task cancelHandler)
      : _loop(std::move(loop)), _source(source), _cancelHandler(std::move(cancelHandler)) {}
  ~LoopSource() override { _loop->remove(_source); }

  void cancel() override {
    if (_isCancelled.exchange(true)) return;
    _loop->remove(_source);
    if (_cancelHandler) _loop->post(std::move(_cancelHandler));
  }
  void setArmed(bool isArmed) override { _loop->setArmed(_source, isArmed); }
  void keepAlive(std::shared_ptr<void> object) override {
    _loop->keepAlive(_source, std::move(object));
  }

 private:
  const std::shared_ptr<NetworkLoop> _loop;
  const NetworkLoop::SourceID _source;
  std::atomic<bool> _isCancelled = false;
  Task _cancelHandler;
};

// One thread runs everything, so every queue on it is serial.
class LoopQueue final : public SerialQueue {
 public:
  explicit LoopQueue(std::shared_ptr<NetworkLoop> loop) : _loop(std::move(loop)) {}

  void async(Task task) override { _loop->post(std::move(task)); }
  std::unique_ptr<Source> after(std::chrono::milliseconds delay, Task task) override {
    return std::make_unique<LoopSource>(_loop, _loop->addOnce(delay, std::move(task)), nullptr);
  }
  std::unique_ptr<Timer> createTimer(std::chrono::milliseconds period, Task handler,
                                     Task cancelHandler) override {
    return source(_loop->addTimer(period, std::move(handler)), std::move(cancelHandler));
  }
  std::unique_ptr<Source> createReadSource(DatagramSocket& socket, Task handler,
                                           Task cancelHandler) override {
    return source(_loop->addReader(socket.descriptor(), std::move(handler)),
                  std::move(cancelHandler));
  }

 private:
  std::unique_ptr<LoopSource> source(NetworkLoop::SourceID source, Task cancelHandler) {
    if (source == NetworkLoop::noSource) return nullptr;
    return std::make_unique<LoopSource>(_loop, source, std::move(cancelHandler));
  }

  const std::shared_ptr<NetworkLoop> _loop;
};

}  // namespace

SystemNetwork::SystemNetwork(std::shared_ptr<Clock> clock, std::function<void()> onIdle)
    : _loop(std::make_shared<NetworkLoop>(std::move(clock), std::move(onIdle))) {}

SystemNetwork::~SystemNetwork() { _loop->stop(); }

std::shared_ptr<SerialQueue> SystemNetwork::createQueue(std::string) {
  return std::make_shared<LoopQueue>(_loop);
}

Result<std::unique_ptr<DatagramSocket>> SystemNetwork::openDatagramSocket() {
  return UDPSocket::open();
}

bool SystemNetwork::isBusy() const { return _loop->isBusy(); }

}  // namespace corvid
