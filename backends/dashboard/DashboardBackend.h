// Reports to a dashboard server: packets over UDP, log data over HTTPS.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backends/CorvidBackend.h"
#include "backends/dashboard/PacketDelivery.h"
#include "backends/dashboard/PacketSender.h"

namespace corvid {

// Events of clients are not sent to dashboards: the base's operation that sessions call does
// nothing here. Who has the backend itself sends through packets().
//
// Threads   cleanup: any. uploadLogData: one caller at a time, which it blocks.
// Ownership Packets outlive a backend that was cleaned up; see PacketDelivery.
// Errors    One that cannot be made says why in the log.
class DashboardBackend final : public CorvidBackend {
 public:
  static constexpr std::chrono::milliseconds defaultPeriod{500};

  // Nothing (logged) without a profile, without a server in it, and where the system refuses.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const Dictionary* profile,
                                                        const SharedIdentity& identity,
                                                        PacketObserver observer = {});
  // Reports to this address, in reliable mode. Nothing without one.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const std::optional<std::string>& serverIP,
                                                        std::uint16_t serverPort,
                                                        const SharedIdentity& identity,
                                                        PacketObserver observer = {});
  // With a profile the address is the profile's.
  static std::shared_ptr<DashboardBackend> initWithName(const std::string& name,
                                                        const Dictionary* profile,
                                                        const std::optional<std::string>& serverIP,
                                                        std::uint16_t serverPort,
                                                        const SharedIdentity& identity,
                                                        PacketObserver observer = {});
  // With a delivery that has started.
  DashboardBackend(const std::string& name, const Dictionary* profile,
                   const SharedIdentity& identity, std::shared_ptr<PacketDelivery> delivery);

  const PacketSender& packets() const { return _packets; }

  bool uploadLogData(const Array& logData) override;
  // Lets waiting packets be delivered, as long as that takes, then closes the socket. Returns at
  // once.
  void cleanup() override { _delivery->cleanup(); }

 private:
  const std::optional<std::string> _postURL;
  const std::shared_ptr<PacketDelivery> _delivery;
  const PacketSender _packets;
};

}  // namespace corvid
