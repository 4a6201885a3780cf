#include "bench/DashboardSending.h"

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "backends/dashboard/DashboardBackend.h"
#include "base/Thread.h"
#include "bench/Program.h"
#include "platform/Platform.h"
#include "tests/support/Loopback.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::bench {

namespace {

constexpr int inFlight = 40;  // fewer than a backend keeps
constexpr const char* udid = "0123456789abcdef0123456789abcdef01234567";

std::chrono::nanoseconds timeOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Counts up; whoever waits sleeps.
class Counter {
 public:
  void add() {
    ++_count;
    _count.notify_one();
  }
  std::uint64_t count() const { return _count; }
  void waitFor(std::uint64_t count) const {
    for (std::uint64_t seen = _count; seen < count; seen = _count) _count.wait(seen);
  }

 private:
  std::atomic<std::uint64_t> _count = 0;
};

// Receives on loopback and, where told, sends each packet's header back. An empty packet ends it.
class Server {
 public:
  Server() {
    _thread = startThread("bench-server", [this] { serve(); });
    pthread_getcpuclockid(_thread.native_handle(), &_clock);
  }
  ~Server() {
    const sockaddr_in address = loopbackAddress(port());
    ::sendto(_bound.socket.get(), nullptr, 0, 0, reinterpret_cast<const sockaddr*>(&address),
             sizeof address);
    _thread.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t port() const { return _bound.port; }
  std::chrono::nanoseconds cpuTime() const { return timeOf(_clock); }
  const Counter& arrivals() const { return _arrivals; }
  void setAcknowledges(bool acknowledges) { _acknowledges = acknowledges; }

 private:
  void serve() {
    std::array<char, TagReportingPacket::size> packet;
    sockaddr_in from{};
    auto* const peer = reinterpret_cast<sockaddr*>(&from);
    for (;;) {
      socklen_t size = sizeof from;
      if (::recvfrom(_bound.socket.get(), packet.data(), packet.size(), 0, peer, &size) <= 0)
        return;
      if (_acknowledges)
        ::sendto(_bound.socket.get(), packet.data(), TagReportingPacketHeader::size, 0, peer, size);
      _arrivals.add();
    }
  }

  const BoundSocket _bound = bindOnLoopback(SOCK_DGRAM);
  Counter _arrivals;
  std::atomic<bool> _acknowledges = false;
  clockid_t _clock{};
  std::thread _thread;
};

// Six keys, as the events of the other benchmarks.
const Dictionary& payload() {
  static const Dictionary payload{{"action", "abcdefghijklmnop"},
                                  {"identifier", "0123456789abcdef0123456789abcdef0123"},
                                  {"count", 4711},
                                  {"level", 3},
                                  {"total", 1'234'567'890},
                                  {"position", 61.25}};
  return payload;
}

class Sending {
 public:
  SendingCost measure(int packets, int rounds) {
    std::vector<double> build, bareSend, plain, reliable;
    for (int round = 0; round <= rounds; ++round) {
      const double costs[] = {buildSome(packets), sendBare(packets),
                              sendBy(*_plain, packets, false), sendBy(*_reliable, packets, true)};
      if (round == 0) continue;  // meets everything for the first time
      build.push_back(costs[0]);
      bareSend.push_back(costs[1]);
      plain.push_back(costs[2]);
      reliable.push_back(costs[3]);
    }
    return {_packet.datagram().size(), median(std::move(build)), median(std::move(bareSend)),
            median(std::move(plain)), median(std::move(reliable))};
  }

 private:
  static TagReportingPacketHeader header() {
    TagReportingPacketHeader header;
    header.compType = 5;
    header.setUdid(udid);
    return header;
  }
  std::shared_ptr<DashboardBackend> make(bool isReliable) {
    Dictionary profile{{"ip", "127.0.0.1"}, {"port", _server.port()}};
    if (isReliable) profile.set("reliable", 500);
    auto backend = DashboardBackend::initWithName(
        "dashboard", &profile,
        std::make_shared<const BackendIdentity>(BackendIdentity{.compType = 5, .udid = udid}),
        [this](std::uint16_t, PacketFate fate) {
          if (fate != PacketFate::sent) _acknowledged.add();
        });
    if (!backend) throw std::runtime_error("there is no dashboard backend");
    return backend;
  }

  // Microseconds a packet that everybody but the server has used.
  template <class Work>
  double cost(int packets, Work work) const {
    const auto begin = timeOf(CLOCK_PROCESS_CPUTIME_ID) - _server.cpuTime();
    work();
    const auto end = timeOf(CLOCK_PROCESS_CPUTIME_ID) - _server.cpuTime();
    return std::chrono::duration<double, std::micro>(end - begin).count() / packets;
  }

  double buildSome(int packets) const {
    return cost(packets, [&] {
      for (int i = 0; i < packets; ++i) {
        const TagReportingPacket packet(header(), &payload());
        if (PacketSender::writeLocalLog(packet).empty()) throw std::logic_error("no log line");
      }
    });
  }
  // Calls `send` in batches; each has arrived, by the counter, before the next.
  template <class Send>
  double sendInBatches(int packets, const Counter& done, Send send) const {
    const std::uint64_t before = done.count();
    return cost(packets, [&] {
      for (int i = 0; i < packets;) {
        const int end = std::min(i + inFlight, packets);
        for (; i < end; ++i) send(i);
        done.waitFor(before + static_cast<std::uint64_t>(end));
      }
    });
  }
  double sendBare(int packets) {
    return sendInBatches(packets, _server.arrivals(), [&](int) {
      if (!_bare->send(_packet.datagram())) throw std::runtime_error("a bare send failed");
    });
  }
  double sendBy(DashboardBackend& backend, int packets, bool isReliable) {
    _server.setAcknowledges(isReliable);
    const Counter& done = isReliable ? _acknowledged : _server.arrivals();
    return sendInBatches(packets, done, [&](int i) {
      backend.packets().send(&payload(), {1'700'000'000, 0}, 7, 2,
                             EventID{static_cast<std::uint16_t>(i)});
    });
  }
  std::unique_ptr<DatagramSocket> connectedSocket() const {
    auto socket = Platform::current().network().openDatagramSocket();
    if (!socket || socket.value()->connect(INADDR_LOOPBACK, _server.port()) != 0)
      throw std::runtime_error("there is no socket to send on");
    return std::move(socket).value();
  }

  Server _server;
  Counter _acknowledged;  // or given up
  const ctl::SendingPlatform _platform;
  const TagReportingPacket _packet{header(), &payload()};
  const std::unique_ptr<DatagramSocket> _bare = connectedSocket();
  const std::shared_ptr<DashboardBackend> _plain = make(false);
  const std::shared_ptr<DashboardBackend> _reliable = make(true);
};

}  // namespace

SendingCost measureSending(int packets, int rounds) { return Sending().measure(packets, rounds); }

}  // namespace corvid::bench
