#include "backends/dashboard/PacketDelivery.h"

#include <array>
#include <utility>

#include "base/Log.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// Ticks to wait for an acknowledgement, by the number of times the packet was sent again.
constexpr std::array<std::int32_t, 4> retransmissionThresholds{2, 3, 5, 9};

}  // namespace

PacketDelivery::PacketDelivery(Network& network, std::unique_ptr<DatagramSocket> socket,
                               PacketObserver observer)
    : _networkProcQueue(network.createQueue("com.halcyon.Corvid.networkProc")),
      _observer(std::move(observer)),
      _logSubject(sharedLogSubject()),
      _socketDescriptor(std::move(socket)) {
  _messageQueue.reserve(queueLimit + 1);
}

PacketDelivery::~PacketDelivery() {
  for (const UDPPacketToSend& packet : _messageQueue)
    report(packet.eventNumber(), PacketFate::dropped);
}

void PacketDelivery::useReliableUDP() {
  if (const int error = _socketDescriptor->bindToAnyPort()) {
    logError("DashboardBackend(useReliableUDP): can't bind socket, {}", error);
    return;
  }
  _reliableUDP = true;
  _readSource = _networkProcQueue->createReadSource(*_socketDescriptor,
                                                    whileAlive(&PacketDelivery::processSocketRead),
                                                    whileAlive(&PacketDelivery::closeSocket));
  // Then nothing is ever acknowledged, and packets are sent again until they are dropped.
  if (!_readSource) logError("DashboardBackend(useReliableUDP): can't create read source");
}

bool PacketDelivery::start(std::uint32_t address, std::uint16_t port,
                           std::chrono::milliseconds period) {
  if (_socketDescriptor->connect(address, port) != 0) {
    logError("DashboardBackend(initWithName): socket connect() failed.");
    return false;
  }
  // In reliable mode the socket is the read source's to close.
  _timer = _networkProcQueue->createTimer(
      period, whileAlive(&PacketDelivery::myPeriodicTask),
      _reliableUDP ? Task() : whileAlive(&PacketDelivery::closeSocket));
  if (!_timer) logError("DashboardBackend(initWithName): can't create timer source.");
  return _timer != nullptr;
}

Task PacketDelivery::whileAlive(void (PacketDelivery::*operation)()) {
  return [weak = weak_from_this(), operation] {
    const auto alive = weak.lock();
    if (!alive) return;
    const LoggingFor session(alive->_logSubject.get());
    const LoggingBackend backend(kCorvidBackendDashboard);
    ((*alive).*operation)();
  };
}

void PacketDelivery::deliver(std::shared_ptr<const TagReportingPacket> packet,
                             std::uint16_t eventNumber) {
  _networkProcQueue->async([self = shared_from_this(), packet = std::move(packet), eventNumber] {
    self->tryToSendMsg(packet->datagram(), eventNumber);
  });
}

void PacketDelivery::tryToSendMsg(std::string_view packet, std::uint16_t eventNumber) {
  const bool wasSent = send(packet);
  if (wasSent && !_reliableUDP) return report(eventNumber, PacketFate::sent);
  auto waiting = UDPPacketToSend::initWithBytes(packet, eventNumber);
  if (!waiting) return report(eventNumber, wasSent ? PacketFate::sent : PacketFate::dropped);
  if (wasSent) waiting->setState(State::sent);
  _messageQueue.push_back(std::move(*waiting));
  if (_messageQueue.size() > queueLimit) removePacket(0, PacketFate::dropped);
  updateTimer();
}

void PacketDelivery::myPeriodicTask() {
  for (std::size_t index = 0; index < _messageQueue.size();) {
    UDPPacketToSend& packet = _messageQueue[index];
    const State stateBefore = packet.state();
    if (handleAtTick(packet))
      ++index;
    else
      removePacket(index, stateBefore == State::notSent ? PacketFate::sent : PacketFate::dropped);
  }
  finishCleanup();
  updateTimer();
}

// False where the packet has reached its end.
bool PacketDelivery::handleAtTick(UDPPacketToSend& packet) {
  if (packet.state() == State::notSent) {
    if (!send(packet.data())) return true;
    if (!_reliableUDP) return false;
    packet.setState(State::sent);
    return true;
  }
  const auto retransmits = static_cast<std::size_t>(packet.numberOfRetransmits());
  if (retransmits >= retransmissionThresholds.size()) return false;
  const std::int32_t checks = packet.numberOfChecks() + 1;
  if (checks < retransmissionThresholds[retransmits]) {
    packet.setNumberOfChecks(checks);
  } else if (send(packet.data())) {
    packet.setNumberOfChecks(0);
    packet.setNumberOfRetransmits(packet.numberOfRetransmits() + 1);
  }
  return true;
}

void PacketDelivery::finishCleanup() {
  if (_cleanupState == CleanupState::running) return;
  if (_messageQueue.empty()) {
    logDebug("DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
    cleanupSources();
  } else if (_cleanupState == CleanupState::requested) {
    _cleanupState = CleanupState::lastResortScheduled;
    logDebug("DashboardBackend(myPeriodicTask): scheduled last resort clean-up in {} ms.",
             lastResortDelay.count());
    // Where cleanup was asked for twice, the first one's comes first and ends it all.
    if (!_lastResort)
      _lastResort =
          _networkProcQueue->after(lastResortDelay, whileAlive(&PacketDelivery::cleanupSources));
  }
}

void PacketDelivery::processSocketRead() {
  std::array<char, TagReportingPacket::size> buffer;
  const auto size = _socketDescriptor ? _socketDescriptor->receive(buffer) : std::nullopt;
  if (!size) return;
  const auto eventNumber = acknowledgedEvent({buffer.data(), *size});
  if (!eventNumber) return;
  for (std::size_t index = 0; index < _messageQueue.size(); ++index) {
    if (_messageQueue[index].eventNumber() != *eventNumber) continue;
    removePacket(index, PacketFate::acknowledged);
    return updateTimer();
  }
}

void PacketDelivery::cleanup() {
  _networkProcQueue->async([self = shared_from_this()] { self->beginCleanup(); });
}

void PacketDelivery::beginCleanup() {
  if (_messageQueue.empty()) return cleanupSources();
  if (!_timer) return;
  _cleanupState = CleanupState::requested;
  // Whoever lets go of the backend need not stay for its packets.
  _timer->keepAlive(shared_from_this());
}

void PacketDelivery::cleanupSources() {
  if (_timer) std::exchange(_timer, nullptr)->cancel();
  if (_readSource) std::exchange(_readSource, nullptr)->cancel();
  _lastResort.reset();
}

void PacketDelivery::removePacket(std::size_t index, PacketFate fate) {
  const std::uint16_t eventNumber = _messageQueue[index].eventNumber();
  _messageQueue.erase(_messageQueue.begin() + static_cast<std::ptrdiff_t>(index));
  report(eventNumber, fate);
}

void PacketDelivery::report(std::uint16_t eventNumber, PacketFate fate) const {
  if (_observer) _observer(eventNumber, fate);
}

// The grid of ticks goes on by itself; only the wake-ups are saved.
void PacketDelivery::updateTimer() {
  if (_timer) _timer->setArmed(!_messageQueue.empty() || _cleanupState != CleanupState::running);
}

}  // namespace corvid
