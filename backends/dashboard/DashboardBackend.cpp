// Creation and sending.
#include "backends/dashboard/DashboardBackend.h"

#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <utility>

#include "backends/dashboard/PacketReader.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "config/Environment.h"
#include "platform/Platform.h"

namespace corvid {

namespace {

// A timer needs a period, and one that no clock can count never fires.
constexpr std::int64_t shortestPeriod = 1;
constexpr std::int64_t longestPeriod = 365LL * 24 * 3600 * 1000;

constexpr std::size_t logLineSize = 1151;

}  // namespace

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(const std::string& name,
                                                                 const Dictionary* profile,
                                                                 const SharedIdentity& identity) {
  return initWithName(name, profile, std::nullopt, 0, identity);
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const std::optional<std::string>& serverIP, std::uint16_t serverPort,
    const SharedIdentity& identity) {
  if (!serverIP) return nullptr;
  return initWithName(name, nullptr, serverIP, serverPort, identity);
}

std::shared_ptr<DashboardBackend> DashboardBackend::initWithName(
    const std::string& name, const Dictionary* profile, const std::optional<std::string>& serverIP,
    std::uint16_t serverPort, const SharedIdentity& identity) {
  const std::string* address = serverIP ? &*serverIP : nullptr;
  std::uint16_t port = serverPort;
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
  }
  auto socket = Platform::current().network().openDatagramSocket();
  if (!socket) {
    logError("DashboardBackend(initWithName): socket() failed ({})", socket.failure().code);
    return nullptr;
  }
  auto backend = std::make_shared<DashboardBackend>(Token{}, name, profile, identity,
                                                    std::move(socket).value());
  if (!address) {
    logError("DashboardBackend(initWithName): initWitName with all null params.");
    return nullptr;
  }
  return backend->start(ipv4AddressFromText(*address), port) ? backend : nullptr;
}

DashboardBackend::DashboardBackend(Token, const std::string& name, const Dictionary* profile,
                                   const SharedIdentity& identity,
                                   std::unique_ptr<DatagramSocket> socket)
    : CorvidBackend(name, profile ? *profile : Dictionary(), identity,
                    profile ? textAt(*profile, "display_url") : std::nullopt),
      _usingProfile(profile != nullptr),
      _networkProcQueue(
          Platform::current().network().createQueue("com.halcyon.Corvid.networkProc")),
      _socketDescriptor(std::move(socket)) {}

DashboardBackend::~DashboardBackend() {
  for (const UDPPacketToSend& packet : _messageQueue)
    report(packet.eventNumber(), PacketFate::dropped);
}

bool DashboardBackend::start(std::uint32_t address, std::uint16_t port) {
  if (_usingProfile)
    takeProfile();
  else
    useReliableUDP();
  if (_socketDescriptor->connect(address, port) != 0) {
    logError("DashboardBackend(initWithName): socket connect() failed.");
    return false;
  }
  // In reliable mode the socket is the read source's to close.
  _timer = _networkProcQueue->createTimer(
      _period, whileAlive(&DashboardBackend::myPeriodicTask),
      _reliableUDP ? Task() : whileAlive(&DashboardBackend::closeSocket));
  if (!_timer) {
    logError("DashboardBackend(initWithName): can't create timer source.");
    return false;
  }
  _messageQueue.reserve(queueLimit + 1);
  return true;
}

void DashboardBackend::takeProfile() {
  _postURL = textAt(_profile, "post_url");
  if (const auto period = integerAt(_profile, "reliable")) {
    useReliableUDP();
    _period = std::chrono::milliseconds(std::clamp(*period, shortestPeriod, longestPeriod));
  }
}

void DashboardBackend::useReliableUDP() {
  if (const int error = _socketDescriptor->bindToAnyPort()) {
    logError("DashboardBackend(useReliableUDP): can't bind socket, {}", error);
    return;
  }
  _reliableUDP = true;
  _readSource = _networkProcQueue->createReadSource(
      *_socketDescriptor, whileAlive(&DashboardBackend::processSocketRead),
      whileAlive(&DashboardBackend::closeSocket));
  // Then nothing is ever acknowledged, and packets are sent again until they are dropped.
  if (!_readSource) logError("DashboardBackend(useReliableUDP): can't create read source");
}

Task DashboardBackend::whileAlive(void (DashboardBackend::*operation)()) {
  return [weak = weak_from_this(), operation] {
    if (const auto alive = weak.lock()) (static_cast<DashboardBackend&>(*alive).*operation)();
  };
}

TagReportingPacketHeader DashboardBackend::tagReportingPacketHeader(const TimeValue& timestamp,
                                                                    std::uint16_t method,
                                                                    std::uint16_t respCode,
                                                                    EventID eventID) const {
  TagReportingPacketHeader header;
  header.msec4 = static_cast<std::uint8_t>(timestamp.microseconds / 4000);
  header.timestamp = static_cast<std::uint32_t>(timestamp.seconds);
  header.method = method;
  header.respCode = respCode;
  header.eventID = static_cast<std::uint16_t>(eventID);
  header.flags = static_cast<std::uint16_t>((_reliableUDP ? packetFlagReliable : 0) |
                                            (_usingProfile ? 0 : packetFlagExplicitAddress));
  header.selfVersionMajor = identity().selfVersionMajor;
  header.compType = static_cast<std::uint8_t>(identity().compType);
  header.sessionID = identity().sessionID;
  header.clientVersion = identity().clientVersion;
  if (identity().udid) header.setUdid(*identity().udid);
  return header;
}

std::shared_ptr<const TagReportingPacket> DashboardBackend::tagReportingPacket(
    const Dictionary* payload, const TimeValue& timestamp, std::uint16_t method,
    std::uint16_t respCode, EventID eventID) const {
  std::shared_ptr<const TagReportingPacket> packet(new (std::nothrow) TagReportingPacket(
      tagReportingPacketHeader(timestamp, method, respCode, eventID), payload));
  if (!packet) logError("DashboardBackend(sendMessage): can't malloc.");
  return packet;
}

std::optional<std::string> DashboardBackend::sendMessage(const Dictionary* payload,
                                                         const TimeValue& timestamp,
                                                         std::uint16_t method,
                                                         std::uint16_t respCode, EventID eventID) {
  const auto packet = tagReportingPacket(payload, timestamp, method, respCode, eventID);
  if (!packet) return std::nullopt;
  std::string line = writeLocalLog(*packet);
  _networkProcQueue->async([self = shared_from_this(), packet, eventID] {
    static_cast<DashboardBackend&>(*self).tryToSendMsg(packet->datagram(),
                                                       static_cast<std::uint16_t>(eventID));
  });
  return line;
}

std::string DashboardBackend::writeLocalLog(const TagReportingPacket& packet) {
  const TagReportingPacketHeader header = readHeader(packet.datagram());
  std::string line = fmt::format(
      "{}.{:03} {} 127.0.0.1 {} {:5} {:5} {:5} {:5} {:5} {}", header.timestamp, header.msec4 * 4,
      header.udidText(), clientTagForClientType(header.compType), header.clientVersion,
      header.sessionID, header.eventID, header.method, header.respCode, packet.payload());
  if (line.size() > logLineSize) line.resize(logLineSize);
  return replacingInvalidUTF8(line);
}

}  // namespace corvid
