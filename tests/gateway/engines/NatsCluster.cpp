#include "tests/gateway/engines/NatsCluster.h"

#include <fmt/format.h>

#include "tests/support/Loopback.h"

namespace corvid::fleet {

namespace {

// The text between `before` and the next quotation mark; empty where it is not there.
std::string_view quoted(std::string_view text, std::string_view before) {
  const std::size_t at = text.find(before);
  if (at == text.npos) return {};
  text.remove_prefix(at + before.size());
  return text.substr(0, text.find('"'));
}

}  // namespace

NatsCluster::NatsCluster(Disks disks) : LogCluster(disks), _ports(freePorts(3 * size)) {
  std::string routes;
  for (std::size_t node = 0; node < size; ++node)
    routes += fmt::format("{}\"nats://127.0.0.1:{}\"", node == 0 ? "" : ", ", _ports[size + node]);
  for (std::size_t node = 0; node < size; ++node) {
    scratch().write(fmt::format("node{}.conf", node),
                    fmt::format("server_name: node{}\nlisten: 127.0.0.1:{}\nhttp: 127.0.0.1:{}\n"
                                "jetstream {{ store_dir: \"{}\", max_file: 1G }}\n"
                                "cluster {{ name: corvid, listen: 127.0.0.1:{}, routes: [{}] }}\n",
                                node, _ports[node], _ports[2 * size + node], folder(node),
                                _ports[size + node], routes));
    start(node);
  }
}

NatsCluster::~NatsCluster() { stopAll(); }

ChildProcess::Program NatsCluster::program(std::size_t node) const {
  return {.command = {"nats-server", "-c", scratch().path(fmt::format("node{}.conf", node))}};
}

std::string NatsCluster::url() const {
  return fmt::format("nats://127.0.0.1:{},127.0.0.1:{},127.0.0.1:{}", _ports[0], _ports[1],
                     _ports[2]);
}

std::optional<std::string> NatsCluster::ask(std::size_t node, const std::string& path) const {
  return outputOf(
      {.command = {"curl", "-sf", "-m", "2",
                   fmt::format("http://127.0.0.1:{}{}", _ports[2 * size + node], path)}});
}

std::optional<std::size_t> NatsCluster::leaderOf(const std::string& stream) {
  for (std::size_t node = 0; node < size; ++node) {
    if (!isRunning(node)) continue;
    const auto answer = ask(node, "/jsz?accounts=true&streams=true");
    if (!answer) continue;
    const std::size_t at = answer->find(fmt::format("\"name\": \"{}\"", stream));
    if (at == answer->npos) continue;
    const std::string_view leader = quoted(std::string_view(*answer).substr(at), "\"leader\": \"");
    for (std::size_t other = 0; other < size; ++other)
      if (leader == fmt::format("node{}", other)) return other;
  }
  return std::nullopt;
}

bool NatsCluster::serves(std::size_t node) {
  if (!isRunning(node)) return false;
  const auto answer = ask(node, "/healthz");
  return answer && answer->find("\"ok\"") != answer->npos;
}

}  // namespace corvid::fleet
