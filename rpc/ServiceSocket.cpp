#include "rpc/ServiceSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/UnixAddress.h"

namespace corvid {

namespace {

constexpr int backlog = 128;
constexpr mode_t everybody = 0666;

Failure failure(std::string_view what, const std::string& path, int error) {
  return {fmt::format("{} {} failed: {}", what, path, std::generic_category().message(error)),
          error};
}

int newSocket() { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// Removes a socket file that nobody serves; 0, or why it may not be removed.
int removeStale(const std::string& path, const UnixAddress& address) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0) return errno == ENOENT ? 0 : errno;
  if (!S_ISSOCK(file.st_mode)) return ENOTSOCK;
  const Descriptor probe(newSocket());
  if (!probe) return errno;
  if (address.connect(probe.get()) == 0 || errno == EAGAIN) return EADDRINUSE;
  if (errno != ECONNREFUSED) return errno;
  return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

ServiceSocket::ServiceSocket(Descriptor socket, std::string path)
    : _socket(std::move(socket)), _path(std::move(path)) {
  struct stat file {};
  if (_path.empty() || stat(_path.c_str(), &file) != 0) return;
  _device = file.st_dev;
  _file = file.st_ino;
}

ServiceSocket::~ServiceSocket() { removeFile(); }

void ServiceSocket::removeFile() const {
  struct stat file {};
  if (!_socket || _path.empty() || lstat(_path.c_str(), &file) != 0) return;
  if (file.st_dev == _device && file.st_ino == _file) unlink(_path.c_str());
}

Result<ServiceSocket> ServiceSocket::bind(const std::string& path) {
  const UnixAddress address(path);
  if (!address) return failure("Creating the socket", path, ENAMETOOLONG);
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (error) return failure("Creating the folder of", path, error.value());

  Descriptor socket(newSocket());
  if (!socket) return failure("Creating the socket", path, errno);
  if (const int reason = removeStale(path, address); reason == EADDRINUSE)
    return Failure{fmt::format("Another process serves {}", path), reason};
  else if (reason != 0)
    return failure("Replacing the socket", path, reason);
  if (address.bind(socket.get()) != 0) return failure("Binding the socket", path, errno);
  ServiceSocket bound(std::move(socket), path);
  if (chmod(path.c_str(), everybody) != 0) return failure("Opening the socket", path, errno);
  if (listen(bound.get(), backlog) != 0) return failure("Listening on the socket", path, errno);
  return bound;
}

Result<ServiceSocket> ServiceSocket::adopt(Descriptor socket) {
  if (!isListeningUnixStream(socket.get()))
    return Failure{"The inherited descriptor is no listening Unix socket", ENOTSOCK};
  const int flags = fcntl(socket.get(), F_GETFL);
  if (flags < 0 || fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0)
    return Failure{"The inherited socket cannot be used", errno};
  fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  return ServiceSocket(std::move(socket), {});
}

}  // namespace corvid
