// The address of a Unix socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
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

}  // namespace corvid
