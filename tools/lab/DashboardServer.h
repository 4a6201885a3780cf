// A dashboard server on loopback.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "base/Value.h"
#include "base/Wakeup.h"
#include "tools/lab/FaultyWire.h"

namespace corvid::lab {

// Acknowledges each packet by sending its header back, and hands on what stood in it:
// {"server":"dashboard","bytes":N,"packet":{…the header…,"payload":{…}},"acknowledged":BOOLEAN}, or
// with "error" instead of the last two where it is none; that is not acknowledged. A packet that
// comes twice is handed on twice. One whose acknowledgement a fault holds
// back counts as not acknowledged.
//
// Threads   One of its own, which calls `receive`; every operation from any thread.
// Errors    The constructor throws std::runtime_error where the port cannot be had.
// Stop      The destructor ends the thread; what is still delayed is lost.
class DashboardServer {
 public:
  using Receive = std::function<void(const Dictionary& entry)>;

  // On 127.0.0.1; port 0 takes a free one.
  explicit DashboardServer(Receive receive, std::uint16_t port = 0);
  ~DashboardServer();
  DashboardServer(const DashboardServer&) = delete;
  DashboardServer& operator=(const DashboardServer&) = delete;

  std::uint16_t port() const { return _port; }

  // From now on, on the way here and on the way back.
  void setFaults(const WireFaults& packets, const WireFaults& acknowledgements, std::uint64_t seed)
      EXCLUDES(_mutex);
  // The same from {"packets":{…},"acknowledgements":{…},"seed":N}, each of which may be left out.
  // What cannot be meant is a tools::InputError.
  void setFaults(const Dictionary& request) EXCLUDES(_mutex);

  // As setFaults takes them, without the seed and what never happens; empty where all is well.
  Dictionary faults() EXCLUDES(_mutex);

  // Called with each packet that is lost on the way here, on the server's thread.
  using LossObserver = std::function<void(const std::string& datagram)>;
  void setLossObserver(LossObserver observer) EXCLUDES(_mutex);

  // Packets that were handed on, those that come again included.
  std::size_t packetsReceived() const { return _received; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Delivery {
    bool isAcknowledgement;
    FaultyWire::Passage passage;
  };

  void serve();
  void receiveOne() EXCLUDES(_mutex);
  // False where nothing comes out of the wire now.
  bool schedule(bool isAcknowledgement, std::string datagram, const sockaddr_in& peer)
      EXCLUDES(_mutex);
  void deliverDue();
  void accept(const std::string& datagram, const sockaddr_in& peer);
  int millisecondsToNext() const;

  const Receive _receive;
  Descriptor _socket;
  Wakeup _end;
  std::uint16_t _port = 0;
  std::atomic<std::size_t> _received = 0;

  Mutex _mutex;
  FaultyWire _packets GUARDED_BY(_mutex);
  FaultyWire _acknowledgements GUARDED_BY(_mutex);
  LossObserver _lossObserver GUARDED_BY(_mutex);

  // The thread only.
  std::multimap<Clock::time_point, Delivery> _deliveries;

  std::thread _thread;  // last: uses all the others
};

}  // namespace corvid::lab
