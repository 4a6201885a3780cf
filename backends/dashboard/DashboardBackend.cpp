#include "backends/dashboard/DashboardBackend.h"

#include <algorithm>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "platform/Platform.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

// A timer needs a period, and one that no clock can count never fires.
constexpr std::int64_t shortestPeriod = 1;
constexpr std::int64_t longestPeriod = 365LL * 24 * 3600 * 1000;

}  // namespace

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(const std::string& name,
                                                                 const Dictionary* profile,
                                                                 const SharedIdentity& identity,
                                                                 PacketObserver observer) {
  return initWithName(name, profile, std::nullopt, 0, identity, std::move(observer));
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const std::optional<std::string>& serverIP, std::uint16_t serverPort,
    const SharedIdentity& identity, PacketObserver observer) {
  if (!serverIP) return nullptr;
  return initWithName(name, nullptr, serverIP, serverPort, identity, std::move(observer));
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const Dictionary* profile, const std::optional<std::string>& serverIP,
    std::uint16_t serverPort, const SharedIdentity& identity, PacketObserver observer) {
  const std::string* address = pointerTo(serverIP);
  std::uint16_t port = serverPort;
  std::optional<std::int64_t> reliablePeriod = defaultPeriod.count();
  if (profile) {
    address = stringAt(*profile, "ip");
    if (!address) {
      logError("DashboardBackend(initWithName): can't resolve server IP");
      return nullptr;
    }
    const auto given = integerAt(*profile, "port");
    if (!given) {
      logError("DashboardBackend(initWithName): can't resolve server port");
      return nullptr;
    }
    port = static_cast<std::uint16_t>(*given);
    reliablePeriod = integerAt(*profile, "reliable");
  }
  Network& network = Platform::current().network();
  auto socket = network.openDatagramSocket();
  if (!socket) {
    logError("DashboardBackend(initWithName): socket() failed ({})", socket.failure().code);
    return nullptr;
  }
  if (!address) {
    logError("DashboardBackend(initWithName): initWitName with all null params.");
    return nullptr;
  }
  auto delivery =
      std::make_shared<PacketDelivery>(network, std::move(socket).value(), std::move(observer));
  if (reliablePeriod) delivery->useReliableUDP();
  const std::chrono::milliseconds period(
      std::clamp(reliablePeriod.value_or(defaultPeriod.count()), shortestPeriod, longestPeriod));
  if (!delivery->start(ipv4AddressFromText(*address), port, period)) return nullptr;
  return std::make_shared<DashboardBackend>(name, profile, identity, std::move(delivery));
}

DashboardBackend::DashboardBackend(const std::string& name, const Dictionary* profile,
                                   const SharedIdentity& identity,
                                   std::shared_ptr<PacketDelivery> delivery)
    : CorvidBackend(name, profile ? *profile : Dictionary(), identity,
                    profile ? textAt(*profile, "display_url") : std::nullopt),
      _postURL(textAt(_profile, "post_url")),
      _delivery(std::move(delivery)),
      _packets(*identity, profile != nullptr, _delivery) {}

bool DashboardBackend::uploadLogData(const Array& logData) {
  if (!_postURL) {
    logError("DashboardBackend(uploadLogData): Post URL for log data array is nil");
    return false;
  }
  std::optional<std::string> archive = archivedData(logData);
  if (!archive) {
    logError("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
    return false;
  }
  HTTPRequest request;
  request.method = "POST";
  request.url = *_postURL;
  request.headers = {{"Content-Type", "application/octet-stream"}};
  request.body = std::move(*archive);
  const HTTPOutcome outcome = performAndWait(_platform.http(), std::move(request));
  if (outcome.error || !outcome.response) {
    logError("DashboardBackend(uploadLogData): Error uploading log data array ({})",
             outcome.error ? std::string_view(outcome.error->description) : nullDescription);
    return false;
  }
  const std::string location = replacingInvalidUTF8(outcome.response->body);
  logDebug("DashboardBackend(uploadLogData): Log data uploaded to {}", location);
  // Counts as an event and, like those of clients, goes nowhere.
  const Dictionary payload{{"LogDataUploadLocation", location}};
  sendMessage(&payload, _platform.clock().now(), 0, 2, MessageFlag{0});
  return true;
}

}  // namespace corvid
