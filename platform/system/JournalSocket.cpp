#include "platform/system/JournalSocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/UnixAddress.h"

namespace corvid {

// "NAME=value\n"; a value of several lines has its length before it.
void appendJournalField(std::string& entry, std::string_view name, std::string_view value) {
  entry += name;
  if (value.find('\n') == std::string_view::npos) {
    entry += '=';
  } else {
    entry += '\n';
    for (unsigned shift = 0; shift < 64; shift += 8)
      entry += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xff);
  }
  entry += value;
  entry += '\n';
}

bool JournalSocket::isThere() {
  const MutexLock lock(_mutex);
  return _socket || connect() == 0;
}

int JournalSocket::send(std::string_view entry) {
  const MutexLock lock(_mutex);
  const bool wasOpen = static_cast<bool>(_socket);
  int error = wasOpen ? 0 : connect();
  if (error != 0) return error;
  error = sendOnce(entry);
  if (wasOpen && error != 0 && error != EAGAIN && error != EMSGSIZE) {
    // The journal has gone; one that has come in its place has the same path.
    error = connect();
    if (error == 0) error = sendOnce(entry);
  }
  if (error == EAGAIN && !_isFull) {
    pollfd room{_socket.get(), POLLOUT, 0};
    poll(&room, 1, static_cast<int>(patience.count()));
    error = sendOnce(entry);
  }
  _isFull = error == EAGAIN;
  return error;
}

int JournalSocket::connect() {
  _socket.reset();
  Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket || UnixAddress(_path).connect(socket.get()) != 0) return errno;
  _socket = std::move(socket);
  return 0;
}

int JournalSocket::sendOnce(std::string_view entry) {
  return ::send(_socket.get(), entry.data(), entry.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
}

}  // namespace corvid
