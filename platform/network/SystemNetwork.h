// The network of the system: one thread carries every queue.
#pragma once

#include <functional>
#include <memory>

#include "base/Heartbeat.h"
#include "platform/Clock.h"
#include "platform/Network.h"

namespace corvid {

class NetworkLoop;

// The thread starts with the first work of any queue and sleeps while there is none.
//
// Ownership Queues and sources may outlive the network, and then do nothing.
// Stop      The destructor waits for what runs and drops the rest; not from a task.
class SystemNetwork final : public Network {
 public:
  // Timers and delays go by `clock`. `onIdle` is called on the network's thread each time when
  // isBusy() has become false. Throws std::system_error where the system has no descriptors left.
  explicit SystemNetwork(std::shared_ptr<Clock> clock, std::function<void()> onIdle = nullptr);
  ~SystemNetwork() override;

  std::shared_ptr<SerialQueue> createQueue(std::string label) override;
  Result<std::unique_ptr<DatagramSocket>> openDatagramSocket() override;
  bool isBusy() const override;
  Heartbeat& heartbeat();

 private:
  const std::shared_ptr<NetworkLoop> _loop;
};

}  // namespace corvid
