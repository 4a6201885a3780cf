// A cable between two programs of this machine, which can be pulled out.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "base/Descriptor.h"
#include "base/Wakeup.h"

namespace corvid::fleet {

// Passes connections on to a port of loopback. While it is cut nothing goes through, and neither
// side hears why: no connection ends, and new ones are taken and not answered. Ends every
// connection when it goes. Any thread.
class Relay {
 public:
  // std::system_error where the system has no socket left. Nobody has to listen at `target` yet.
  explicit Relay(std::uint16_t target);
  ~Relay();

  std::uint16_t port() const { return _port; }
  void cut() { set(true); }
  void mend() { set(false); }

 private:
  // Two sockets, and what was read from each and not written to the other yet.
  struct Link {
    Descriptor ends[2];
    std::string pieces[2];
  };
  void set(bool isCut);
  void run(const std::stop_token& stop);
  void accept();
  // Moves what can be moved in one direction; false where a side has ended.
  static bool move(Link& link, std::size_t from, short events);

  const std::uint16_t _target;
  Descriptor _listener;
  std::uint16_t _port = 0;
  const Wakeup _wakeup;
  std::atomic<bool> _isCut{false};
  std::vector<Link> _links;  // of the thread
  std::jthread _thread;
};

}  // namespace corvid::fleet
