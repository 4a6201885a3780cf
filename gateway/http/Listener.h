// An address where connections come in.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gateway/Worker.h"

namespace corvid::fleet {

// Gives connections to workers, one after the other. Where there are more than the settings allow,
// those that come are closed at once.
//
// Threads   the constructor: any; then that of the first worker.
class Listener : public std::enable_shared_from_this<Listener> {
 public:
  // "ADDRESS:PORT", where port 0 is any; throws std::runtime_error where it cannot be had. The
  // workers are borrowed, and run the listener.
  Listener(const std::string& address, Role role, std::vector<Worker*> workers);

  void start() { accept(); }
  // Any thread.
  void stop();
  std::uint16_t port() const { return _port; }

 private:
  void accept();
  void accepted(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket,
                Worker& worker);

  const Role _role;
  const std::vector<Worker*> _workers;
  boost::asio::ip::tcp::acceptor _acceptor;
  boost::asio::steady_timer _pause;
  std::uint16_t _port = 0;
  std::size_t _next = 0;
};

}  // namespace corvid::fleet
