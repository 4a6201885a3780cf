#include "tools/lab/DashboardServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "base/Reading.h"
#include "base/Text.h"
#include "base/Thread.h"
#include "tools/Arguments.h"
#include "tools/lab/PacketReader.h"

namespace corvid::lab {

namespace {

constexpr std::size_t largestDatagram = 2048;

Dictionary readablePairs(std::string_view payload) {
  Dictionary pairs;
  for (const auto& [key, value] : pairsOfPayload(payload))
    pairs.set(replacingInvalidUTF8(key), replacingInvalidUTF8(*value.string()));
  return pairs;
}

Dictionary described(const ReadPacket& packet) {
  const TagReportingPacketHeader& header = packet.header;
  return {{"selfVersionMajor", header.selfVersionMajor},
          {"compType", header.compType},
          {"timestamp", header.timestamp},
          {"milliseconds", header.msec4 * 4},
          {"sessionID", header.sessionID},
          {"clientVersion", header.clientVersion},
          {"method", header.method},
          {"respCode", header.respCode},
          {"udid", replacingInvalidUTF8(header.udidText())},
          {"eventID", header.eventID},
          {"flags", header.flags},
          {"payload", readablePairs(packet.payload)}};
}

}  // namespace

DashboardServer::DashboardServer(Receive receive, std::uint16_t port)
    : _receive(std::move(receive)),
      _socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (!_socket || ::bind(_socket.get(), generic, size) != 0 ||
      ::getsockname(_socket.get(), generic, &size) != 0)
    throw std::runtime_error(
        fmt::format("cannot take packets on 127.0.0.1:{}: {}", port, std::strerror(errno)));
  _port = ntohs(address.sin_port);
  _thread = startThread("lab-dashboard", [this] { serve(); });
}

DashboardServer::~DashboardServer() {
  _end.wake();
  _thread.join();
}

void DashboardServer::setFaults(const WireFaults& packets, const WireFaults& acknowledgements,
                                std::uint64_t seed) {
  const MutexLock lock(_mutex);
  _packets = FaultyWire(packets, seed);
  _acknowledgements = FaultyWire(acknowledgements, ~seed);
}

void DashboardServer::setFaults(const Dictionary& request) {
  const auto faults = [&](std::string_view way) {
    if (!request.contains(way)) return WireFaults();
    const Dictionary* wanted = dictionaryAt(request, way);
    if (!wanted) throw tools::InputError(fmt::format("\"{}\" takes an object", way));
    return WireFaults::from(*wanted);
  };
  const WireFaults packets = faults("packets");
  const std::int64_t seed = integerAt(request, "seed").value_or(1);
  setFaults(packets, faults("acknowledgements"), static_cast<std::uint64_t>(seed));
}

Dictionary DashboardServer::faults() {
  Dictionary faults;
  const MutexLock lock(_mutex);
  if (Dictionary packets = _packets.faults().described(); !packets.empty())
    faults.set("packets", std::move(packets));
  if (Dictionary back = _acknowledgements.faults().described(); !back.empty())
    faults.set("acknowledgements", std::move(back));
  return faults;
}

void DashboardServer::setLossObserver(LossObserver observer) {
  const MutexLock lock(_mutex);
  _lossObserver = std::move(observer);
}

int DashboardServer::millisecondsToNext() const {
  if (_deliveries.empty()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(_deliveries.begin()->first - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

void DashboardServer::serve() {
  for (;;) {
    pollfd waiting[] = {{_socket.get(), POLLIN, 0}, {_end.descriptor(), POLLIN, 0}};
    ::poll(waiting, 2, millisecondsToNext());
    if (waiting[1].revents != 0) return;
    if (waiting[0].revents != 0) receiveOne();
    deliverDue();
  }
}

void DashboardServer::receiveOne() {
  std::string datagram(largestDatagram, '\0');
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  const ssize_t size = ::recvfrom(_socket.get(), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<sockaddr*>(&peer), &length);
  if (size < 0) return;
  datagram.resize(static_cast<std::size_t>(size));
  if (schedule(false, datagram, peer)) return;
  LossObserver observer;
  {
    const MutexLock lock(_mutex);
    observer = _lossObserver;
  }
  if (observer) observer(datagram);
}

bool DashboardServer::schedule(bool isAcknowledgement, std::string datagram,
                               const sockaddr_in& peer) {
  const Clock::time_point now = Clock::now();
  const MutexLock lock(_mutex);
  FaultyWire& wire = isAcknowledgement ? _acknowledgements : _packets;
  std::vector<FaultyWire::Passage> passages = wire.pass(std::move(datagram), peer);
  for (FaultyWire::Passage& passage : passages) {
    const auto due = now + passage.delay;
    _deliveries.emplace(due, Delivery{isAcknowledgement, std::move(passage)});
  }
  return !passages.empty();
}

void DashboardServer::deliverDue() {
  while (!_deliveries.empty() && _deliveries.begin()->first <= Clock::now()) {
    const auto next = _deliveries.extract(_deliveries.begin());
    const auto& [isAcknowledgement, passage] = next.mapped();
    if (!isAcknowledgement) {
      accept(passage.datagram, passage.peer);
      continue;
    }
    ::sendto(_socket.get(), passage.datagram.data(), passage.datagram.size(), 0,
             reinterpret_cast<const sockaddr*>(&passage.peer), sizeof passage.peer);
  }
}

void DashboardServer::accept(const std::string& datagram, const sockaddr_in& peer) {
  Dictionary entry{{"server", "dashboard"}, {"bytes", datagram.size()}};
  const Result<ReadPacket> packet = readPacket(datagram);
  if (packet) {
    const bool isAcknowledged =
        schedule(true, datagram.substr(0, TagReportingPacketHeader::size), peer);
    entry.set("packet", described(packet.value()));
    entry.set("acknowledged", isAcknowledged);
  } else {
    entry.set("error", packet.failure().message);
  }
  _receive(entry);
  ++_received;
}

}  // namespace corvid::lab
