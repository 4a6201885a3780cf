#include "tests/gateway/engines/RabbitCluster.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "tests/support/Loopback.h"

namespace corvid::fleet {

namespace {

constexpr const char* cookie = "scratch";

std::string shortName(std::size_t node) { return fmt::format("corvid{}", node); }
std::string nodeName(std::size_t node) { return shortName(node) + "@localhost"; }

}  // namespace

RabbitCluster::RabbitCluster(Disks disks, std::size_t nodes)
    : LogCluster(disks), _count(nodes), _ports(freePorts(3 * size)) {
  _registers.reserve(_count);
  for (std::size_t node = 0; node < _count; ++node) {
    _registers.emplace_back(_ports[registerPorts + node]);
    for (std::size_t other = 0; other < _count; ++other) {
      if (other == node) continue;
      _relays[node][other] = std::make_unique<Relay>(_ports[size + other]);
      _registers[node].announce(shortName(other), _relays[node][other]->port());
    }
  }
  for (std::size_t node = 0; node < _count; ++node) {
    const std::string where = fmt::format("config{}/", node);
    const std::string secret = scratch().write(where + ".erlang.cookie", cookie);
    chmod(secret.c_str(), 0400);
    scratch().write(where + "plugins", "[].");
    scratch().write(where + "rabbitmq.config", configuration(node));
  }
  for (std::size_t node = 0; node < _count; ++node) start(node);
}

std::string RabbitCluster::configuration(std::size_t node) const {
  std::string peers;
  for (std::size_t peer = 0; peer < _count; ++peer)
    peers += fmt::format("{}'{}'", peer == 0 ? "" : ", ", nodeName(peer));
  // In Erlang's own terms: a node takes a fifth of its start to read the other form, rabbitmq.conf.
  return fmt::format(
      "[{{rabbit, [{{tcp_listeners, [{{\"127.0.0.1\", {}}}]}},\n"
      "  {{cluster_formation, [{{peer_discovery_backend, rabbit_peer_discovery_classic_config}}]}},\n"
      "  {{cluster_nodes, {{[{}], disc}}}},\n"
      "  {{cluster_partition_handling, pause_minority}},\n"
      "  {{disk_free_limit, 32000000}}]}},\n"
      // Small, so that short runs go through more than one.
      " {{ra, [{{wal_max_size_bytes, 16777216}}]}}].\n",
      _ports[node], peers);
}

RabbitCluster::~RabbitCluster() { stopAll(); }

ChildProcess::Program RabbitCluster::program(std::size_t node) const {
  const std::string config = scratch().path(fmt::format("config{}", node));
  return {
      .command = {"/usr/lib/rabbitmq/bin/rabbitmq-server"},
      .environment = {"HOME=" + config,
                      // Then the script becomes the node instead of waiting for it.
                      "RUNNING_UNDER_SYSTEMD=true", "RABBITMQ_CONF_ENV_FILE=/dev/null",
                      "RABBITMQ_NODENAME=" + nodeName(node),
                      "RABBITMQ_MNESIA_BASE=" + folder(node) + "/data",
                      "RABBITMQ_LOG_BASE=" + config + "/log", "RABBITMQ_LOGS=-",
                      "RABBITMQ_CONFIG_FILE=" + config + "/rabbitmq.config",
                      "RABBITMQ_ADVANCED_CONFIG_FILE=" + config + "/advanced.config",
                      "RABBITMQ_ENABLED_PLUGINS_FILE=" + config + "/plugins",
                      "RABBITMQ_PID_FILE=" + config + "/pid", "ERL_CRASH_DUMP=" + config + "/crash",
                      fmt::format("RABBITMQ_DIST_PORT={}", _ports[size + node]),
                      fmt::format("ERL_EPMD_PORT={}", _registers[node].port()),
                      "ERL_EPMD_ADDRESS=127.0.0.1",
                      "RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS=-start_epmd false"
                      " -kernel inet_dist_use_interface {127,0,0,1} -kernel net_ticktime 8"},
  };
}

std::string RabbitCluster::url() const {
  std::string hosts;
  for (std::size_t node = 0; node < _count; ++node)
    hosts += fmt::format("{}127.0.0.1:{}", node == 0 ? "" : ",", _ports[node]);
  return fmt::format("amqp://guest:guest@{}/%2F", hosts);
}

std::optional<std::string> RabbitCluster::ask(std::size_t node, const std::string& call) const {
  return outputOf(
      {.command = {"erl_call", "-c", cookie, "-n", nodeName(node), "-timeout", "2", "-a", call},
       .environment = {fmt::format("ERL_EPMD_PORT={}", _registers[node].port())}});
}

std::optional<std::size_t> RabbitCluster::leaderOf(const std::string& stream) {
  for (std::size_t node = 0; node < size; ++node) {
    if (!isRunning(node)) continue;
    const auto answer = ask(node, fmt::format("ra_leaderboard lookup_leader ['%2F_{}']", stream));
    for (std::size_t leader = 0; answer && leader < size; ++leader)
      if (answer->find(nodeName(leader)) != answer->npos) return leader;
  }
  return std::nullopt;
}

bool RabbitCluster::serves(std::size_t node) {
  if (!isRunning(node) || !isOpen(_ports[node])) return false;
  const auto running = ask(node, "rabbit_mnesia cluster_nodes [running]");
  if (!running || running->find(nodeName(node)) == running->npos) return false;
  // Where its disk was full, a node goes on without what keeps its quorum queues.
  const auto writer = ask(node, "erlang whereis [ra_log_wal]");
  return writer && writer->find("undefined") == writer->npos;
}

void RabbitCluster::cutOff(std::size_t node) {
  for (std::size_t other = 0; other < _count; ++other) {
    if (other == node) continue;
    _relays[node][other]->cut();
    _relays[other][node]->cut();
  }
}

void RabbitCluster::joinAgain(std::size_t node) {
  for (std::size_t other = 0; other < _count; ++other) {
    if (other == node) continue;
    _relays[node][other]->mend();
    _relays[other][node]->mend();
  }
}

}  // namespace corvid::fleet
