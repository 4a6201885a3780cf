// Bytes and descriptors from a client through the whole chain: socket, guard, RPC and session.
// Whatever comes, the daemon answers in its protocol, ends the connection when the client does, and
// keeps nothing of it.
#include <capnp/rpc.capnp.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Limits.h"
#include "protocol/wire/FrameReader.h"
#include "protocol/wire/SocketPort.h"
#include "tests/fuzz/ClientStream.h"
#include "tests/fuzz/FuzzedDaemon.h"

namespace {

using namespace corvid;
using fuzz::ClientWrite;
using fuzz::require;

Descriptor fileOf(std::size_t size, int flags) {
  const Descriptor file(memfd_create("passed", MFD_CLOEXEC));
  require(file && ftruncate(file.get(), static_cast<off_t>(size)) == 0);
  const std::string name = "/proc/self/fd/" + std::to_string(file.get());
  return Descriptor(open(name.c_str(), flags | O_CLOEXEC));
}

// What a client passes, made once.
int passedDescriptor(fuzz::Passed kind) {
  static const std::array<Descriptor, fuzz::kindsOfPassed> descriptors = [] {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0);
    const Descriptor writing(ends[1]);
    return std::array<Descriptor, fuzz::kindsOfPassed>{
        Descriptor(),
        fileOf(300, O_RDONLY),
        fileOf(0, O_RDONLY),
        fileOf(limits::uploadBytes + 1, O_RDONLY),
        fileOf(300, O_WRONLY),
        Descriptor(ends[0]),
        Descriptor(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
  }();
  return descriptors[static_cast<std::size_t>(kind)].get();
}

// The number that the next descriptor would get.
int nextDescriptor() { return Descriptor(dup(STDIN_FILENO)).get(); }

// The client's end. It reads whatever comes, so that the daemon never waits for it.
class Client {
 public:
  explicit Client(Descriptor socket) : _socket(std::move(socket)) {}

  void converse(std::span<const ClientWrite> writes) {
    std::size_t written = 0;  // of the first
    bool isDone = false;
    while (!_hasEnded) {
      while (!writes.empty() && written == writes.front().bytes.size())
        writes = writes.subspan(1), written = 0;
      if (writes.empty() && !isDone) isDone = true, shutdown(_socket.get(), SHUT_WR);
      pollfd ready{_socket.get(), static_cast<short>(isDone ? POLLIN : POLLIN | POLLOUT), 0};
      if (poll(&ready, 1, -1) < 0 && errno == EINTR) continue;  // the fuzzer looks at its time
      if (ready.revents & (POLLIN | POLLHUP | POLLERR)) receive();
      if (!isDone && ready.revents & POLLOUT) written += send(writes.front(), written);
    }
  }

 private:
  std::size_t send(const ClientWrite& write, std::size_t from) {
    iovec bytes{const_cast<char*>(write.bytes.data()) + from, write.bytes.size() - from};
    msghdr message{};
    message.msg_iov = &bytes, message.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    if (const int passed = passedDescriptor(write.passed); from == 0 && passed >= 0) {
      message.msg_control = control.data(), message.msg_controllen = control.size();
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET, header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof passed);
      std::memcpy(CMSG_DATA(header), &passed, sizeof passed);
    }
    const ssize_t sent = sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    // Nobody listens any more; what is still there is read.
    if (sent < 0 && errno != EAGAIN) return bytes.iov_len;
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }

  void receive() {
    auto space = _frames.space();
    const ssize_t count = recv(_socket.get(), space.begin(), space.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) return;
    _hasEnded = count <= 0;
    if (_hasEnded) return;
    _frames.filled(static_cast<std::size_t>(count));
    for (;;) {
      kj::Own<capnp::MessageReader> message = _frames.next();
      if (message.get() == nullptr) return;
      require(message->getRoot<capnp::rpc::Message>().which() <= capnp::rpc::Message::DISEMBARGO);
    }
  }

  const Descriptor _socket;
  wire::FrameReader _frames;
  bool _hasEnded = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const wire::QuietLibrary quiet;
  const auto writes = fuzz::readClientStream({reinterpret_cast<const char*>(data), size});
  passedDescriptor(fuzz::Passed::nothing);
  const int before = nextDescriptor();
  {
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0);
    Client client{Descriptor(ends[0])};
    fuzz::FuzzedDaemon daemon;
    const auto connection = daemon.serve(Descriptor(ends[1]));
    client.converse(writes);
    connection->join();
  }
  require(nextDescriptor() == before);
  return 0;
}
