#include "platform/network/SystemNetwork.h"

#include <utility>

#include "platform/network/NetworkLoop.h"
#include "platform/network/UDPSocket.h"

namespace corvid {

SystemNetwork::SystemNetwork(std::shared_ptr<Clock> clock, std::function<void()> onIdle)
    : _loop(std::make_shared<NetworkLoop>(std::move(clock), std::move(onIdle))) {}

SystemNetwork::~SystemNetwork() { _loop->stop(); }

// One thread runs everything, so one queue serves for all.
std::shared_ptr<SerialQueue> SystemNetwork::createQueue(std::string) { return _loop; }

Result<std::unique_ptr<DatagramSocket>> SystemNetwork::openDatagramSocket() {
  return UDPSocket::open();
}

bool SystemNetwork::isBusy() const { return _loop->isBusy(); }
Heartbeat& SystemNetwork::heartbeat() { return _loop->heartbeat(); }

}  // namespace corvid
