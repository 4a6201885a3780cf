// Reports events to a dashboard server as UDP packets, and uploads log data over HTTPS.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backends/CorvidBackend.h"
#include "backends/dashboard/TagReportingPacket.h"
#include "backends/dashboard/UDPPacketToSend.h"
#include "platform/Network.h"

namespace corvid {

// What became of a packet that the backend has let go.
enum class PacketFate {
  sent,          // went out; nobody was asked to acknowledge it
  acknowledged,  // arrived
  dropped,       // never acknowledged, pushed out by later ones, or given up with the backend
};
using PacketObserver = std::function<void(EventID, PacketFate)>;

// Each event is one packet, built on the caller's thread and sent on the network's. In reliable
// mode it then waits in a queue for the server's acknowledgement and is sent again 2, 5, 10 and 19
// ticks after the first time; at the tick after that it is dropped. In plain mode only what could
// not be sent waits. The timer fires on its grid while something waits or the end is near, and
// otherwise not at all.
//
// The base's entry point does not lead to sendMessage below: events of clients are not sent to
// dashboards. Who has the backend itself may send.
//
// Threads   sendMessage, cleanup: any. uploadLogData: one caller at a time, which it blocks. All
//           delivery runs on _networkProcQueue and touches its fields there only, without a lock.
// Ownership What waits on the queue holds the backend weakly, except for events on their way there
//           and, from cleanup on, the timer: a backend that was cleaned up and let go lives until
//           its packets are acknowledged or dropped, 9.5 seconds and a tick at most. One that is
//           let go without cleanup closes its socket at once.
// Limits    queueLimit packets wait; past it the oldest is dropped.
// Errors    One that cannot be made says why in the log. A delivery that fails says nothing.
class DashboardBackend final : public CorvidBackend {
  struct Token {
    explicit Token() = default;
  };

 public:
  static constexpr std::size_t queueLimit = 50;
  static constexpr std::chrono::milliseconds defaultPeriod{500};
  static constexpr std::chrono::milliseconds lastResortDelay{9500};

  // Nothing (logged) without a profile, without a server in it, and where the system refuses.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const Dictionary* profile,
                                                        const SharedIdentity& identity);
  // Reports to this address, in reliable mode. Nothing without one.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const std::optional<std::string>& serverIP,
                                                        std::uint16_t serverPort,
                                                        const SharedIdentity& identity);
  // With a profile the address is its.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const Dictionary* profile,
                                                        const std::optional<std::string>& serverIP,
                                                        std::uint16_t serverPort,
                                                        const SharedIdentity& identity);
  // For initWithName only: nobody else has a token.
  DashboardBackend(Token, const std::string& name, const Dictionary* profile,
                   const SharedIdentity& identity, std::unique_ptr<DatagramSocket> socket);
  ~DashboardBackend() override;

  // Told of each packet's end, on the network's thread or where the last owner lets go. Set before
  // the first send.
  void setPacketObserver(PacketObserver observer) { _packetObserver = std::move(observer); }

  using CorvidBackend::sendMessage;
  // Sends one packet and answers with its log line. `payload` may be null.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue& timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID);
  // The line of a packet, cut after 1151 bytes; what is no UTF-8 is then replaced.
  static std::string writeLocalLog(const TagReportingPacket& packet);

  bool uploadLogData(const Array& logData) override;
  // Lets what waits be delivered, as long as that takes, then closes the socket. Returns at once.
  void cleanup() override;

 private:
  using State = UDPPacketToSend::State;
  enum class CleanupState : std::int32_t { running = 0, requested = 1, lastResortScheduled = 2 };

  bool start(std::uint32_t address, std::uint16_t port);
  void takeProfile();
  void useReliableUDP();
  // A handler that does nothing once the backend is gone.
  Task whileAlive(void (DashboardBackend::*operation)());
  // Nothing (logged) where there is no memory for it.
  std::shared_ptr<const TagReportingPacket> tagReportingPacket(const Dictionary* payload,
                                                               const TimeValue& timestamp,
                                                               std::uint16_t method,
                                                               std::uint16_t respCode,
                                                               EventID eventID) const;
  TagReportingPacketHeader tagReportingPacketHeader(const TimeValue& timestamp,
                                                    std::uint16_t method, std::uint16_t respCode,
                                                    EventID eventID) const;

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

  // Constant once initialised.
  bool _usingProfile = false;
  bool _reliableUDP = false;
  std::optional<std::string> _postURL;
  std::chrono::milliseconds _period = defaultPeriod;
  std::shared_ptr<SerialQueue> _networkProcQueue;
  PacketObserver _packetObserver;

  // On _networkProcQueue only, once initialised. The sources go before the socket that one waits
  // on.
  std::unique_ptr<DatagramSocket> _socketDescriptor;  // none once closed
  std::vector<UDPPacketToSend> _messageQueue;
  CleanupState _cleanupState = CleanupState::running;
  std::unique_ptr<Source> _readSource;  // in reliable mode
  std::unique_ptr<Timer> _timer;
  std::unique_ptr<Source> _lastResort;
};

}  // namespace corvid
