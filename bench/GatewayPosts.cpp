#include "bench/GatewayPosts.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <zlib.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace corvid::bench {

namespace {

using Steady = std::chrono::steady_clock;

std::string gzip(const std::string& content) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + 16, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("no memory to compress with");
  std::string packed(deflateBound(&stream, content.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
  stream.avail_in = static_cast<uInt>(content.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

std::string eventOf(std::uint64_t number) {
  const double time = 1795255260.0 + static_cast<double>(number % 100'000) / 7;
  return fmt::format(
      R"({{"action":"play-{:010}","title":"episode {:028}","position":{:.3f},"count":{},"bytes":{},)"
      R"("account":"{:064x}","_startTS":1795255260,"_sender":"ZH","_clientVersion":3,)"
      R"("_sessionID":"URjmgAZ/RKyN8cUmbbz2ww==","_eventNumber":{},"_method":7,"_status":{},)"
      R"("_clientTS":{:.6f},"eventTime":{:.6f},"_productFamily":"Workbench",)"
      R"("_productModel":"Workbench1,1","_osVersion":"12","_build":"6.1.0-28-amd64","_internal":0,)"
      R"("_reportVers":"8.1","_timezoneOffset":0,"_clientName":"Player","_serviceName":"Evening Film"}})",
      number * 2654435761u % 9'999'999'999u, number * 40503u, static_cast<double>(number % 911) / 3,
      number % 7, number * 37, number * 0x9E3779B97F4A7C15u, number % 65536, number % 5, time,
      time);
}

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
    post.body = fmt::format(
        R"({{"postTime":{:.6f},"clientId":"DAE71BE7-ACC1-4DAE-8443-{:012X}","events":[)",
        1795255262.334619 + static_cast<double>(number), number);
    for (int i = 0; i < eventsEach; ++i) post.body += (i > 0 ? "," : "") + eventOf(++number);
    post.body += "]}";
    post.packed = gzip(post.body);
    post.request =
        fmt::format(
            "POST /v1/events HTTP/1.1\r\nHost: collector.example\r\nX-Real-IP: 10.{}.{}.{}\r\n"
            "X-CVD-Client-Name: Player\r\nX-CVD-Service-Name: Evening Film\r\n"
            "User-Agent: Corvid/8.1 (Workbench1,1; 12)\r\nX-CVD-Client-Version: 3\r\n"
            "X-CVD-Sender: ZH\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
            "Content-Encoding: gzip\r\nContent-Length: {}\r\n\r\n",
            number / 65536 % 256, number / 256 % 256, number % 256, post.packed.size()) +
        post.packed;
  }
  return posts;
}

Descriptor connectTo(std::uint16_t port) {
  Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  if (!connection ||
      connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
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
