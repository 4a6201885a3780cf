// The client's end of a fuzzed socket.
#pragma once

#include <capnp/rpc.capnp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <span>
#include <utility>

#include "base/Descriptor.h"
#include "protocol/wire/FrameReader.h"
#include "tests/fuzz/ClientStream.h"
#include "tests/fuzz/Require.h"

namespace corvid::fuzz {

// It reads whatever comes, so that the daemon never waits for it, and aborts where that is no
// message of the protocol.
class StreamingClient {
 public:
  // Gives what stands for a kind of descriptor; negative where nothing is passed.
  using Descriptors = std::function<int(Passed)>;

  explicit StreamingClient(
      Descriptor socket, Descriptors descriptors = [](Passed) { return -1; })
      : _socket(std::move(socket)), _descriptors(std::move(descriptors)) {}

  // Until the daemon has ended the connection, which is told of the end behind the last write.
  // `written` is called behind each.
  void converse(
      std::span<const ClientWrite> writes, const std::function<void()>& written = [] {}) {
    std::size_t bytes = 0;  // of the first
    bool isDone = false;
    while (!_hasEnded) {
      while (!writes.empty() && bytes == writes.front().bytes.size()) {
        writes = writes.subspan(1), bytes = 0;
        written();
      }
      if (writes.empty() && !isDone) isDone = true, shutdown(_socket.get(), SHUT_WR);
      pollfd ready{_socket.get(), static_cast<short>(isDone ? POLLIN : POLLIN | POLLOUT), 0};
      if (poll(&ready, 1, -1) < 0 && errno == EINTR) continue;  // the fuzzer looks at its time
      if (ready.revents & (POLLIN | POLLHUP | POLLERR)) receive();
      if (!isDone && ready.revents & POLLOUT) bytes += send(writes.front(), bytes);
    }
  }

 private:
  std::size_t send(const ClientWrite& write, std::size_t from) {
    iovec bytes{const_cast<char*>(write.bytes.data()) + from, write.bytes.size() - from};
    msghdr message{};
    message.msg_iov = &bytes, message.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    if (const int passed = _descriptors(write.passed); from == 0 && passed >= 0) {
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
  const Descriptors _descriptors;
  wire::FrameReader _frames;
  bool _hasEnded = false;
};

}  // namespace corvid::fuzz
