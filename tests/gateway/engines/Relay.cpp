#include "tests/gateway/engines/Relay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "tests/support/Loopback.h"

namespace corvid::fleet {

namespace {

constexpr std::size_t pieceBytes = 65536;

Descriptor openSocket() {
  return Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void sendAtOnce(const Descriptor& socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

Relay::Relay(std::uint16_t target) : _target(target) {
  BoundSocket bound = listenOnLoopback(SOCK_STREAM | SOCK_NONBLOCK);
  _listener = std::move(bound.socket);
  _port = bound.port;
  _thread = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

Relay::~Relay() {
  _thread.request_stop();
  _wakeup.wake();
}

void Relay::set(bool isCut) {
  _isCut = isCut;
  _wakeup.wake();
}

void Relay::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    const bool isCut = _isCut;
    std::vector<pollfd> polled{{_wakeup.descriptor(), POLLIN, 0}};
    if (!isCut) {
      polled.push_back({_listener.get(), POLLIN, 0});
      for (const Link& link : _links)
        for (const std::size_t end : {0U, 1U})
          polled.push_back({link.ends[end].get(),
                            static_cast<short>((link.pieces[end].empty() ? POLLIN : 0) |
                                               (link.pieces[1 - end].empty() ? 0 : POLLOUT)),
                            0});
    }
    poll(polled.data(), polled.size(), -1);
    _wakeup.drain();
    if (isCut || _isCut) continue;
    std::vector<Link> lasting;
    for (std::size_t at = 0; at < _links.size(); ++at) {
      Link& link = _links[at];
      if (move(link, 0, polled[2 + 2 * at].revents) && move(link, 1, polled[3 + 2 * at].revents))
        lasting.push_back(std::move(link));
    }
    _links = std::move(lasting);
    if ((polled[1].revents & POLLIN) != 0) accept();
  }
}

void Relay::accept() {
  Descriptor near(accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  Descriptor far = openSocket();
  if (!near || !far) return;
  const sockaddr_in address = loopbackAddress(_target);
  if (connect(far.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS)
    return;
  sendAtOnce(near);
  sendAtOnce(far);
  _links.push_back({.ends = {std::move(near), std::move(far)}, .pieces = {}});
}

bool Relay::move(Link& link, std::size_t from, short events) {
  std::string& piece = link.pieces[from];
  if (piece.empty() && (events & (POLLIN | POLLHUP | POLLERR)) != 0) {
    std::array<char, pieceBytes> room;
    const ssize_t length = read(link.ends[from].get(), room.data(), room.size());
    if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (length > 0) piece.assign(room.data(), static_cast<std::size_t>(length));
  }
  if (piece.empty()) return true;
  const ssize_t length = send(link.ends[1 - from].get(), piece.data(), piece.size(), MSG_NOSIGNAL);
  if (length < 0 && errno != EAGAIN && errno != EINTR) return false;
  if (length > 0) piece.erase(0, static_cast<std::size_t>(length));
  return true;
}

}  // namespace corvid::fleet
