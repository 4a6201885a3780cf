#include "bench/FleetPath.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "bench/GatewayParts.h"
#include "bench/MeasuredProcess.h"
#include "bench/devices/Load.h"
#include "gateway/loader/Database.h"
#include "gateway/log/LogURL.h"
#include "tests/support/Waiting.h"

namespace corvid::bench {

namespace {

constexpr int usualEvents = 50;
// One address may do what all of a fleet do, where there is one connection.
constexpr const char* limits =
    "client-requests = 1000000\nclient-bytes = 1000000000\nclient-time = 1000000\n";

}  // namespace

FleetPath::FleetPath(fleet::RabbitCluster& log, int nodes, int seconds)
    : _log(log),
      _nodes(nodes),
      _seconds(seconds),
      _fleet({.logURL = log.url(), .gateways = 1, .limits = limits}, _identity) {
  _fleet.awaitReady();
  (void)_fleet.loader(0).stop();
}

FleetSetup FleetPath::toGateway(int events, int connections, double rate) const {
  return {.url = fmt::format("http://127.0.0.1:{}/v1/events", _fleet.gatewayPort(0)),
          .devices = connections,
          .rate = static_cast<std::int64_t>(rate),
          .events = events,
          .seconds = _seconds};
}

void FleetPath::printHeading() {
  fmt::print(
      "| nodes | events a post | connections | posts/s | p50, p99 then, ms | gateway, us an event | "
      "a post | nodes, us a post | at half the posts: p50, p99, ms |\n"
      "|---|---|---|---|---|---|---|---|---|\n");
}

void FleetPath::measurePosts(int events, int connections) {
  const pid_t gateway = _fleet.gateway(0).pid();
  const auto gatewayBefore = cpuTimeOf(gateway);
  const auto nodesBefore = _log.cpuTime();
  const Tally full = runLoad(toGateway(events, connections, 0));
  const double gatewayMicros = inMicros(cpuTimeOf(gateway) - gatewayBefore);
  const double nodesMicros = inMicros(_log.cpuTime() - nodesBefore);
  const auto posts = static_cast<double>(full.acknowledged());
  emptyLog();
  const double rate = std::max(1.0, posts / full.seconds / 2);
  const Tally half = runLoad(toGateway(events, connections, rate));
  emptyLog();
  fmt::print(
      "| {} | {} | {} | {:.0f} | {:.1f}, {:.1f} | {:.1f} | {:.0f} | {:.0f} | {:.1f}, {:.1f} |\n",
      _nodes, events, connections, posts / full.seconds, full.percentile(50), full.percentile(99),
      gatewayMicros / posts / events, gatewayMicros / posts, nodesMicros / posts,
      half.percentile(50), half.percentile(99));
  for (const Tally* const tally : {&full, &half})
    if (tally->acknowledged() != tally->posts.size())
      fmt::print("Not all posts of the line above were acknowledged:\n{}\n", tally->text());
  std::fflush(stdout);
}

std::size_t FleetPath::stored() {
  return std::stoul(*fleet::Database(_fleet.postgres().target())
                         .run("SELECT count(*) FROM corvid.message")
                         .at(0)
                         .at(0));
}

void FleetPath::measureLoader(int events) {
  const std::size_t wanted = events == 1 ? 10'000 : 1000;
  const std::size_t before = stored();
  std::size_t filled = 0;
  while (filled < wanted) filled += runLoad(toGateway(events, 100, 0)).acknowledged();
  fleet::Service& loader = _fleet.loader(0);
  const auto begun = std::chrono::steady_clock::now();
  loader.start();
  // Until the last transaction, for what one holds is not seen before its end.
  if (!waitUntil([&] { return stored() - before == filled; }, std::chrono::seconds(120),
                 std::chrono::milliseconds(200)))
    throw std::runtime_error("the loader is not through: " + loader.lastWords());
  const auto count = static_cast<double>(filled * static_cast<std::size_t>(events));
  const double micros = inMicros(cpuTimeOf(loader.pid()));
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begun;
  (void)loader.stop();
  emptyLog();
  fleet::Database database(_fleet.postgres().target());
  const auto number = [&](const char* question) {
    return std::stod(database.run(question).at(0).at(0).value_or("0"));
  };
  const double bytes = number(
      "SELECT sum(pg_total_relation_size(inhrelid)) FROM pg_inherits "
      "WHERE inhparent = 'corvid.event'::regclass");
  fmt::print(
      "loader, {} nodes, {} events a post: {:.1f} us of its CPU an event, {:.0f} events/s; {:.0f} "
      "bytes of the database an event\n",
      _nodes, events, micros / count, count / time.count(),
      bytes / number("SELECT count(*) FROM corvid.event"));
  database.runAll("TRUNCATE corvid.event");
  std::fflush(stdout);
}

std::chrono::nanoseconds FleetPath::nginxTime() const {
  std::chrono::nanoseconds sum{};
  for (const pid_t process : _fleet.nginx().processes()) sum += cpuTimeOf(process);
  return sum;
}

void FleetPath::measureNginx() {
  constexpr int connections = 2000;
  FleetSetup setup = toGateway(usualEvents, connections, 1);
  setup.url = _fleet.nginx().url("/v1/events");
  setup.caFile = _fleet.nginx().caFile();
  setup.seconds = 1;
  const auto before = nginxTime();
  (void)runLoad(setup);
  const double connecting = inMicros(nginxTime() - before) / connections;
  constexpr int posting = 100;
  setup.devices = posting;
  setup.rate = 0;
  setup.seconds = _seconds;
  const auto between = nginxTime();
  const Tally tally = runLoad(setup);
  const double micros = inMicros(nginxTime() - between) - posting * connecting;
  emptyLog();
  fmt::print("nginx: {:.0f} us of its CPU a connection, {:.0f} us a post of {} events\n",
             connecting, micros / static_cast<double>(tally.acknowledged()), usualEvents);
  std::fflush(stdout);
}

void FleetPath::emptyLog() {
  const auto reader = fleet::makeLogReader(_log.url(), {"events"});
  while (true) {
    const auto some = reader->read(1000, std::chrono::seconds(1));
    if (some.empty()) return;
    reader->release(some.back().position);
  }
}

}  // namespace corvid::bench
