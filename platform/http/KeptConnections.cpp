#include "platform/http/KeptConnections.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "platform/http/CurlLibrary.h"

namespace corvid {

void KeptConnections::add(CURL* handle) {
  curl_socket_t socket = CURL_SOCKET_BAD;
  const char* serverAddress = nullptr;
  long serverPort = 0;
  long localPort = 0;
  curl().easy_getinfo(handle, CURLINFO_ACTIVESOCKET, &socket);
  curl().easy_getinfo(handle, CURLINFO_PRIMARY_IP, &serverAddress);
  curl().easy_getinfo(handle, CURLINFO_PRIMARY_PORT, &serverPort);
  curl().easy_getinfo(handle, CURLINFO_LOCAL_PORT, &localPort);
  if (socket == CURL_SOCKET_BAD || !serverAddress) return;  // not kept

  std::erase_if(_connections, [&](const Connection& known) { return known.socket == socket; });
  _connections.push_back({socket, serverAddress, serverPort, localPort});
}

bool KeptConnections::isClosed(const char* serverAddress, int serverPort, int localPort) const {
  const auto known = std::ranges::find_if(_connections, [&](const Connection& connection) {
    return connection.localPort == localPort && connection.serverPort == serverPort &&
           connection.serverAddress == serverAddress;
  });
  if (known == _connections.end()) return false;
  char byte;
  const auto count = ::recv(known->socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return count >= 0 || (errno != EAGAIN && errno != EINTR);
}

}  // namespace corvid
