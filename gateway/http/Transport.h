// The bytes of a connection, in the clear or through TLS.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

#include "gateway/http/TLS.h"

struct ssl_st;

namespace corvid::fleet {

// Never blocks. One thread.
class Transport {
 public:
  // What must be before the call is worth making again; none: `bytes` were moved.
  enum class Need { none, readable, writable, closed };
  struct Moved {
    Need need;
    std::size_t bytes = 0;
  };

  // In the clear where `tls` is none.
  Transport(boost::asio::ip::tcp::socket socket, const TLS& tls);

  Moved read(std::span<char> room);
  // Whether a read gives bytes that the socket does not show any more.
  bool hasBuffered() const;
  Moved write(std::string_view bytes);
  // No more is written; what the peer still sends can be read.
  void endWriting();
  void close();
  boost::asio::ip::tcp::socket& socket() { return _socket; }

 private:
  Moved need(int result);

  boost::asio::ip::tcp::socket _socket;
  struct Free {
    void operator()(ssl_st* ssl) const;
  };
  std::unique_ptr<ssl_st, Free> _ssl;
};

}  // namespace corvid::fleet
