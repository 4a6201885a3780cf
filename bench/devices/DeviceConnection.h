// A device's connection to its collector, in the clear or through TLS.
#pragma once

#include <boost/asio/ip/address_v4.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "bench/devices/FleetRun.h"

namespace corvid::bench {

// One thing at a time. Callbacks run in the loop, never before the call that was given them has
// returned; until then the object stays.
class DeviceConnection {
 public:
  using Error = boost::system::error_code;
  using Done = std::function<void(Error)>;
  struct Answer {
    int status = 0;
    bool closes = false;  // whether the peer will take no other request
  };
  using Answered = std::function<void(Error, Answer)>;

  // `from`: this end's address; nothing: any.
  DeviceConnection(FleetRun& run, std::optional<boost::asio::ip::address_v4> from);

  // Connects, with a handshake where the collector speaks TLS, all within `time`.
  void open(std::chrono::seconds time, Done done);
  // `bytes` stay as they are until it is done.
  void write(std::string_view bytes, Done done);
  // Reads a whole answer and passes over its body.
  void readAnswer(Answered answered);
  // At once, without a farewell.
  void close();
  bool isOpen() const { return _plain || _encrypted; }
  // What begins now and is not through by then fails.
  void limit(std::chrono::seconds time);

 private:
  using Plain = boost::beast::tcp_stream;
  using Encrypted = boost::beast::ssl_stream<Plain>;

  Plain& stream() { return _encrypted ? _encrypted->next_layer() : *_plain; }
  void shakeHands(Done done);
  void readRest(std::size_t headBytes, Answered answered);

  FleetRun& _run;
  const std::optional<boost::asio::ip::address_v4> _from;
  std::unique_ptr<Plain> _plain;
  std::unique_ptr<Encrypted> _encrypted;
  std::string _read;
};

}  // namespace corvid::bench
