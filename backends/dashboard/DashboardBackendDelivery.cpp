// Delivery: everything here runs on the network queue, but for the request to clean up.
#include <array>
#include <utility>

#include "backends/dashboard/DashboardBackend.h"
#include "backends/dashboard/PacketReader.h"
#include "base/Log.h"

namespace corvid {

namespace {

// Ticks to wait for an acknowledgement, by the number of times the packet was sent again.
constexpr std::array<std::int32_t, 4> retransmissionThresholds{2, 3, 5, 9};

}  // namespace

void DashboardBackend::tryToSendMsg(std::string_view packet, std::uint16_t eventNumber) {
  const bool wasSent = send(packet);
  if (wasSent && !_reliableUDP) return report(eventNumber, PacketFate::sent);
  auto waiting = UDPPacketToSend::initWithBytes(packet, eventNumber);
  if (!waiting) return report(eventNumber, wasSent ? PacketFate::sent : PacketFate::dropped);
  if (wasSent) waiting->setState(State::sent);
  _messageQueue.push_back(std::move(*waiting));
  if (_messageQueue.size() > queueLimit) removePacket(0, PacketFate::dropped);
  updateTimer();
}

void DashboardBackend::myPeriodicTask() {
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
bool DashboardBackend::handleAtTick(UDPPacketToSend& packet) {
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

void DashboardBackend::finishCleanup() {
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
          _networkProcQueue->after(lastResortDelay, whileAlive(&DashboardBackend::cleanupSources));
  }
}

void DashboardBackend::processSocketRead() {
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

void DashboardBackend::cleanup() {
  _networkProcQueue->async(
      [self = shared_from_this()] { static_cast<DashboardBackend&>(*self).beginCleanup(); });
}

void DashboardBackend::beginCleanup() {
  if (_messageQueue.empty()) return cleanupSources();
  if (!_timer) return;
  _cleanupState = CleanupState::requested;
  // Whoever let go of the backend need not stay for its packets.
  _timer->keepAlive(shared_from_this());
}

void DashboardBackend::cleanupSources() {
  if (_timer) std::exchange(_timer, nullptr)->cancel();
  if (_readSource) std::exchange(_readSource, nullptr)->cancel();
  _lastResort.reset();
}

void DashboardBackend::removePacket(std::size_t index, PacketFate fate) {
  const std::uint16_t eventNumber = _messageQueue[index].eventNumber();
  _messageQueue.erase(_messageQueue.begin() + static_cast<std::ptrdiff_t>(index));
  report(eventNumber, fate);
}

void DashboardBackend::report(std::uint16_t eventNumber, PacketFate fate) const {
  if (_packetObserver) _packetObserver(EventID{eventNumber}, fate);
}

// The grid of ticks goes on by itself; only the wake-ups are saved.
void DashboardBackend::updateTimer() {
  if (_timer) _timer->setArmed(!_messageQueue.empty() || _cleanupState != CleanupState::running);
}

}  // namespace corvid
