// A launcher's side of NOTIFY_SOCKET.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Descriptor.h"

namespace corvid {

// Stands in the environment as long as it lives.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& name)
      : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    const bool isAbstract = name[0] == '@';
    if (isAbstract) address.sun_path[0] = 0;
    const auto size = offsetof(sockaddr_un, sun_path) + name.size() + (isAbstract ? 0 : 1);
    EXPECT_EQ(
        bind(_socket.get(), reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(size)),
        0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~NotifySocket() { unsetenv("NOTIFY_SOCKET"); }

  std::string received() const {
    char message[256];
    const ssize_t size = recv(_socket.get(), message, sizeof message, MSG_DONTWAIT);
    return size < 0 ? "(nothing)" : std::string(message, static_cast<std::size_t>(size));
  }

 private:
  Descriptor _socket;
};

}  // namespace corvid
