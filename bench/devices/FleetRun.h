// What the devices of a load share.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <cstddef>
#include <string>

#include "bench/devices/Setup.h"
#include "bench/devices/Tally.h"

namespace corvid::bench {

using Steady = std::chrono::steady_clock;

struct FleetRun {
  FleetSetup setup;
  boost::asio::io_context loop{1};
  boost::asio::ssl::context tls{boost::asio::ssl::context::tls_client};
  boost::asio::ip::tcp::endpoint collector;
  std::string authority, host, target;  // "HOST:PORT", "HOST", "/PATH"
  bool usesTLS = false;
  Tally tally;
  Steady::time_point start;                            // when all had connected
  Steady::time_point end = Steady::time_point::max();  // no post begins later

  bool isOver() const { return Steady::now() >= end; }
};

}  // namespace corvid::bench
