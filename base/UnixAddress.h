// Unix sockets: their addresses, and what can be asked of a socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>

namespace corvid {

// A path, or the name of an abstract socket, which begins with a zero byte.
class UnixAddress {
 public:
  explicit UnixAddress(std::string_view path) {
    const bool isAbstract = path.starts_with('\0');
    if (path.size() >= sizeof _address.sun_path) return;
    _address.sun_family = AF_UNIX;
    path.copy(_address.sun_path, path.size());
    // A path ends with a zero byte, an abstract name with its last character.
    _size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + !isAbstract);
  }

  // False where the path is too long for any socket.
  explicit operator bool() const { return _size > 0; }

  // As the system calls of these names: 0, or -1 and errno.
  int bind(int socket) const { return call(::bind, socket); }
  int connect(int socket) const { return call(::connect, socket); }

 private:
  int call(int (*function)(int, const sockaddr*, socklen_t), int socket) const {
    if (_size > 0) return function(socket, reinterpret_cast<const sockaddr*>(&_address), _size);
    errno = ENAMETOOLONG;
    return -1;
  }

  sockaddr_un _address{};
  socklen_t _size = 0;
};

// An option of the socket level and of a fixed size; nothing, and errno, where the system refuses.
template <class T>
std::optional<T> socketOption(int socket, int option) {
  T value{};
  socklen_t size = sizeof value;
  if (getsockopt(socket, SOL_SOCKET, option, &value, &size) != 0) return std::nullopt;
  return value;
}

inline bool isListeningUnixStream(int socket) {
  return socketOption<int>(socket, SO_DOMAIN) == AF_UNIX &&
         socketOption<int>(socket, SO_TYPE) == SOCK_STREAM &&
         socketOption<int>(socket, SO_ACCEPTCONN) == 1;
}

}  // namespace corvid
