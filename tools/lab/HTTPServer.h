// An HTTP/1.1 server on loopback, with and without TLS, that misbehaves on request.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "base/Descriptor.h"
#include "base/Mutex.h"
#include "tools/lab/HTTPExchange.h"
#include "tools/lab/TLSIdentity.h"

struct ssl_ctx_st;  // OpenSSL's

namespace corvid::lab {

class HTTPServerConnection;

// What becomes of a connection before its first request.
enum class ConnectionFault {
  none,
  hangUp,       // closed as soon as it is accepted
  garbage,      // bytes that are neither TLS nor HTTP, then the end
  neverSpeaks,  // accepted, then silence
  resets        // reset after the peer's first words, so in the middle of a handshake
};

// One thread accepts, each connection has its own; connections are kept alive.
//
// Threads   Every operation from any thread but those that run the handler.
// Limits    A head over 64 KiB and a body over 512 MiB are refused with 431 and 413.
// Errors    The constructor throws std::runtime_error where it cannot listen or cannot use the
//           certificate. A request that cannot be read is answered 400 (411 where its body is
//           chunked), and its connection ends.
// Stop      Breaks every connection and joins all threads; waits at most for running handlers.
//           A second stop does nothing. The destructor stops.
class HTTPServer {
 public:
  struct Options {
    std::optional<TLSCertificate> tls{};  // plain HTTP without
    std::uint16_t port = 0;               // on 127.0.0.1; 0 takes a free one
  };

  explicit HTTPServer(Handler handler) : HTTPServer(std::move(handler), Options{}) {}
  HTTPServer(Handler handler, Options options);
  ~HTTPServer();
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  void stop() EXCLUDES(_mutex);

  std::uint16_t port() const { return _port; }
  // "https://127.0.0.1:PORT" and `target`, which starts with "/".
  std::string url(std::string_view target = "/") const;

  // For connections accepted from now on.
  void setConnectionFault(ConnectionFault fault) { _fault = fault; }

  // Since the start. A request counts once it was read wholly, before its handler runs.
  std::size_t connectionsAccepted() const { return _accepted; }
  std::size_t requestsReceived() const { return _requests; }
  // Those whose answers have left wholly.
  std::size_t requestsAnswered() const { return _answers; }
  std::size_t connectionsOpen() const EXCLUDES(_mutex);

 private:
  void acceptConnections();
  void add(Descriptor socket) EXCLUDES(_mutex);

  const Handler _handler;
  const std::shared_ptr<ssl_ctx_st> _tls;  // none: plain
  Descriptor _listener;
  std::uint16_t _port = 0;

  std::atomic<ConnectionFault> _fault = ConnectionFault::none;
  std::atomic<std::size_t> _accepted = 0;
  std::atomic<std::size_t> _requests = 0;
  std::atomic<std::size_t> _answers = 0;

  mutable Mutex _mutex;
  bool _stopping GUARDED_BY(_mutex) = false;
  std::list<HTTPServerConnection> _connections GUARDED_BY(_mutex);
  std::thread _acceptor;
};

}  // namespace corvid::lab
