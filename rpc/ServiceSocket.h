// A listening Unix stream socket, at a path that this process made or handed over by whoever
// started it.
//
// A socket file of its own is removed at the end, where it is still the same file.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/Descriptor.h"
#include "base/Result.h"

namespace corvid {

class ServiceSocket {
 public:
  // Creates the socket file, open to everybody, and missing folders above it. A socket file that
  // nobody serves is replaced; fails where somebody does, or where the file is no socket.
  static Result<ServiceSocket> bind(const std::string& path);
  // Takes over a listening Unix socket, such as one handed over at start.
  static Result<ServiceSocket> adopt(Descriptor socket);
  ~ServiceSocket();
  ServiceSocket(ServiceSocket&&) = default;
  ServiceSocket& operator=(ServiceSocket&&) = delete;

  int get() const { return _socket.get(); }
  // Removes the file now, as the end would.
  void removeFile() const;

 private:
  ServiceSocket(Descriptor socket, std::string path);

  Descriptor _socket;
  std::string _path;  // empty where it is not ours
  dev_t _device = 0;
  ino_t _file = 0;
};

}  // namespace corvid
