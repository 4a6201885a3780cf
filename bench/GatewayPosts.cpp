#include "bench/GatewayPosts.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <string_view>

#include "bench/FleetBody.h"
#include "tests/support/Loopback.h"
#include "tools/Gzip.h"

namespace corvid::bench {

namespace {

using Steady = std::chrono::steady_clock;

struct Peer {
  Descriptor socket;
  std::size_t post = 0;
  Steady::time_point sent{};
};

void send(Peer& peer, const std::vector<FleetPost>& posts) {
  std::string_view left = posts[peer.post % posts.size()].request;
  peer.sent = Steady::now();
  while (!left.empty()) {
    const ssize_t count = ::send(peer.socket.get(), left.data(), left.size(), MSG_NOSIGNAL);
    if (count <= 0) throw std::runtime_error("the gateway takes no more");
    left.remove_prefix(static_cast<std::size_t>(count));
  }
}

void receive(const Peer& peer) {
  std::array<char, 512> answer;
  const ssize_t count = recv(peer.socket.get(), answer.data(), answer.size(), 0);
  const std::string_view text(answer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  if (!text.starts_with("HTTP/1.1 200") || !text.ends_with("\r\n\r\n"))
    throw std::runtime_error(fmt::format("the gateway answers \"{}\"", text));
}

}  // namespace

std::vector<FleetPost> makeFleetPosts(std::size_t count, int eventsEach) {
  std::vector<FleetPost> posts(count);
  std::uint64_t number = 0;
  for (FleetPost& post : posts) {
    post.body = fleetBody({.client = fmt::format("DAE71BE7-ACC1-4DAE-8443-{:012X}", number),
                           .first = number + 1,
                           .count = eventsEach});
    number += static_cast<std::uint64_t>(eventsEach);
    post.packed = gzip(post.body);
    post.request = postRequest("/v1/events", "collector.example",
                               fmt::format("X-Real-IP: 10.{}.{}.{}\r\n", number / 65536 % 256,
                                           number / 256 % 256, number % 256),
                               post.packed);
  }
  return posts;
}

Descriptor connectTo(std::uint16_t port) {
  Descriptor connection = connectOnLoopback(port);
  const int on = 1;
  if (!connection || setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
    throw std::runtime_error("cannot connect to the gateway");
  return connection;
}

Posting makePosts(std::uint16_t port, const std::vector<FleetPost>& posts, int connections,
                  std::chrono::milliseconds duration) {
  std::vector<Peer> peers;
  std::vector<pollfd> polled;
  for (int i = 0; i < connections; ++i) {
    peers.push_back({connectTo(port), static_cast<std::size_t>(i)});
    polled.push_back({peers.back().socket.get(), POLLIN, 0});
  }
  Posting posting;
  const auto start = Steady::now();
  for (Peer& peer : peers) send(peer, posts);
  std::size_t underWay = peers.size();
  while (underWay > 0) {
    constexpr int patience = 20'000;
    if (poll(polled.data(), polled.size(), patience) <= 0)
      throw std::runtime_error("the gateway does not answer");
    for (std::size_t i = 0; i < peers.size(); ++i) {
      if (polled[i].revents == 0) continue;
      Peer& peer = peers[i];
      receive(peer);
      const auto now = Steady::now();
      posting.latencyMicros.push_back(
          std::chrono::duration<double, std::micro>(now - peer.sent).count());
      peer.post += static_cast<std::size_t>(connections);
      if (now - start < duration)
        send(peer, posts);
      else
        --underWay;
    }
  }
  posting.seconds = std::chrono::duration<double>(Steady::now() - start).count();
  posting.posts = posting.latencyMicros.size();
  return posting;
}

}  // namespace corvid::bench
