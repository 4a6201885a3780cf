// The way of a dashboard's packets from their backend to the server.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "backends/dashboard/TagReportingPacket.h"
#include "base/LogFields.h"
#include "platform/Network.h"

namespace corvid {

// What became of a packet that has been let go.
enum class PacketFate {
  sent,          // went out; nobody was asked to acknowledge it
  acknowledged,  // arrived
  dropped,       // never acknowledged, pushed out by later ones, or given up with the delivery
};
using PacketObserver = std::function<void(std::uint16_t eventNumber, PacketFate)>;

// One datagram that waits to be sent, or to be acknowledged. Owns its bytes.
class UDPPacketToSend {
 public:
  using Bytes = std::unique_ptr<char[]>;
  enum class State : std::int32_t {
    notSent = 0,  // not yet in full
    sent = 1,     // waits for its acknowledgement
  };

  // Copies the bytes; nothing where there is no memory for them.
  static std::optional<UDPPacketToSend> initWithBytes(std::string_view bytes,
                                                      std::uint16_t eventNum) {
    Bytes copy(new (std::nothrow) char[bytes.size()]);
    if (!copy) return std::nullopt;
    std::ranges::copy(bytes, copy.get());
    UDPPacketToSend packet;
    packet.setEventNumber(eventNum);
    packet.setData(std::move(copy), bytes.size());
    return packet;
  }

  State state() const { return _state; }
  void setState(State state) { _state = state; }
  // Ticks counted since the last transmission.
  std::int32_t numberOfChecks() const { return _numberOfChecks; }
  void setNumberOfChecks(std::int32_t checks) { _numberOfChecks = checks; }
  std::int32_t numberOfRetransmits() const { return _numberOfRetransmits; }
  void setNumberOfRetransmits(std::int32_t retransmits) { _numberOfRetransmits = retransmits; }
  // What an acknowledgement names.
  std::uint16_t eventNumber() const { return _eventNumber; }
  void setEventNumber(std::uint16_t eventNumber) { _eventNumber = eventNumber; }
  std::string_view data() const { return {_data.get(), _length}; }
  void setData(Bytes data, std::size_t length) {
    _data = std::move(data);
    _length = length;
  }

 private:
  UDPPacketToSend() = default;

  State _state = State::notSent;
  std::int32_t _numberOfChecks = 0;
  std::int32_t _numberOfRetransmits = 0;
  std::uint16_t _eventNumber = 0;
  Bytes _data;
  std::size_t _length = 0;
};

// Sends packets over one UDP socket. In reliable mode each then waits in a queue for the server's
// acknowledgement and is sent again 2, 5, 10 and 19 ticks after the first time; at the tick after
// that it is dropped. In plain mode only what could not be sent waits. The timer fires on its grid
// while something waits or the end is near, and otherwise not at all.
//
// Threads   useReliableUDP, start: whoever makes it, before all else. deliver, cleanup: any. The
//           rest runs on _networkProcQueue and touches its fields there only, without a lock.
// Ownership Shared by its backend, by packets on their way to the queue and, from cleanup on, by
//           the timer: after cleanup it lives until its packets are acknowledged or dropped, 9.5
//           seconds and a tick at most. One that is let go without cleanup closes its socket at
//           once. Handlers hold it weakly.
// Limits    queueLimit packets wait; past it the oldest is dropped.
// Errors    One that cannot start says why in the log. A delivery that fails says nothing.
class PacketDelivery final : public std::enable_shared_from_this<PacketDelivery> {
 public:
  static constexpr std::size_t queueLimit = 50;
  static constexpr std::chrono::milliseconds lastResortDelay{9500};

  // The observer, if any, is told of each packet's end: on the network's thread, or where the last
  // owner lets go.
  PacketDelivery(Network& network, std::unique_ptr<DatagramSocket> socket, PacketObserver observer);
  ~PacketDelivery();

  // Stays plain (logged) where the system refuses.
  void useReliableUDP();
  // Connects and ticks. False (logged) where the system refuses.
  bool start(std::uint32_t address, std::uint16_t port, std::chrono::milliseconds period);
  bool reliableUDP() const { return _reliableUDP; }

  // Returns at once.
  void deliver(std::shared_ptr<const TagReportingPacket> packet, std::uint16_t eventNumber);
  // Lets what waits be delivered, as long as that takes, then closes the socket. Returns at once.
  void cleanup();

 private:
  using State = UDPPacketToSend::State;
  enum class CleanupState : std::int32_t { running = 0, requested = 1, lastResortScheduled = 2 };

  // A handler that does nothing once the delivery is gone.
  Task whileAlive(void (PacketDelivery::*operation)());

  // On _networkProcQueue.
  void tryToSendMsg(std::string_view packet, std::uint16_t eventNumber);
  void myPeriodicTask();
  bool handleAtTick(UDPPacketToSend& packet);
  void finishCleanup();
  void processSocketRead();
  void beginCleanup();
  void cleanupSources();
  void closeSocket() { _socketDescriptor.reset(); }
  bool send(std::string_view datagram) {
    return _socketDescriptor && _socketDescriptor->send(datagram);
  }
  void removePacket(std::size_t index, PacketFate fate);
  void report(std::uint16_t eventNumber, PacketFate fate) const;
  void updateTimer();

  // Constant once started.
  const std::shared_ptr<SerialQueue> _networkProcQueue;
  const PacketObserver _observer;
  const std::shared_ptr<const LogSubject> _logSubject;
  bool _reliableUDP = false;

  // On _networkProcQueue only, once started. The sources go before the socket that one waits on.
  std::unique_ptr<DatagramSocket> _socketDescriptor;  // none once closed
  std::vector<UDPPacketToSend> _messageQueue;
  CleanupState _cleanupState = CleanupState::running;
  std::unique_ptr<Source> _readSource;  // in reliable mode
  std::unique_ptr<Timer> _timer;
  std::unique_ptr<Source> _lastResort;
};

}  // namespace corvid
