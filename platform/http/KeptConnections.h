// The sockets of connections that libcurl keeps for later exchanges.
#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

namespace corvid {

// libcurl takes the goodbye of a server within TLS for a sign of life and would send on a dead
// connection, so sockets are looked at once more before they serve again. libcurl does not tell
// which socket a transfer was given until it has ended; until then they are known by their ends.
// Used on the client's thread only.
class KeptConnections {
 public:
  // `handle`'s transfer has ended well and still is part of its multi handle; its connection may
  // be kept.
  void add(CURL* handle);
  // True when the server has closed the kept connection. Between exchanges anything that can be
  // read is a goodbye.
  bool isClosed(const char* serverAddress, int serverPort, int localPort) const;
  void clear() { _connections.clear(); }

 private:
  struct Connection {
    curl_socket_t socket;
    std::string serverAddress;
    long serverPort;
    long localPort;
  };

  // Some may be gone; a socket's number comes back with the next connection.
  std::vector<Connection> _connections;
};

}  // namespace corvid
