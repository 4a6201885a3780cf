// A server on loopback that takes whatever comes and answers as it is told, right or wrong.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <thread>

#include "base/Descriptor.h"

namespace corvid::lab::conform {

// Reads a request as far as its length, where it has one that can be read, and sends what the
// handler gives, bytes for bytes. A connection ends after an answer of the handler that says so, or
// where the peer ends.
//
// Threads   each connection has its own, which runs the handler.
class CannedServer {
 public:
  struct Request {
    std::string head;  // with its first line, and without its end
    std::string body;
    bool isCut;  // the peer ended before the body was whole
  };
  struct Answer {
    std::string bytes;
    bool hangsUp = false;
  };
  using Handler = std::function<Answer(const Request&)>;
  enum class Service {
    all,       // at once
    oneByOne,  // each connection until its end
    silently   // reads and never answers
  };

  explicit CannedServer(Handler handler, Service service = Service::all);
  ~CannedServer();
  CannedServer(const CannedServer&) = delete;
  CannedServer& operator=(const CannedServer&) = delete;

  std::string url() const;

 private:
  void accept();
  void serve(int socket) const;

  const Handler _handler;
  const Service _service;
  Descriptor _listener;
  std::uint16_t _port = 0;
  std::list<Descriptor> _sockets;
  std::list<std::thread> _connections;
  std::thread _acceptor;
};

// An answer of this status and body, as a well-behaved server sends it.
CannedServer::Answer canned(int status, std::string_view body = {});

}  // namespace corvid::lab::conform
