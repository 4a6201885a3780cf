// bench/fleet: posts a second and what they cost, from a device's connection to the log and from
// the log to the database, at 50 events a post and at one.
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "bench/FleetBare.h"
#include "bench/FleetPath.h"
#include "bench/GatewayParts.h"
#include "bench/Program.h"

namespace corvid::bench {
namespace {

struct Setup {
  int nodes = 3;  // of the log, at most three
  int connections = 10'000;
  int seconds = 5;
};

void measure(const Setup& setup) {
  const int nodes = setup.nodes;
  if (static_cast<std::size_t>(nodes) > fleet::LogCluster::size)
    throw std::runtime_error("--nodes: takes 1 to 3");
  fleet::RabbitCluster log(fleet::LogCluster::Disks::shared, static_cast<std::size_t>(nodes));
  if (!log.awaitAll(std::chrono::seconds(120))) throw std::runtime_error(log.lastWords(0));
  for (const int events : {50, 1}) measureBarePublish(log.url(), nodes, events, setup.seconds);
  FleetPath path(log, nodes, setup.seconds);
  for (const int events : {50, 1}) path.measureLoader(events);
  path.measureNginx();
  FleetPath::printHeading();
  for (const int events : {50, 1})
    for (const int connections : {1, 100, setup.connections})
      path.measurePosts(events, connections);
}

void measureAll(const Setup& setup) {
  for (const int events : {50, 1}) {
    std::printf("%d events a post\n", events);
    measureGatewayParts(events);
  }
  {
    fleet::ScratchPostgres postgres;
    fleet::Database database(postgres.target());
    for (const int events : {50, 1}) measureBareCopy(database, events);
  }
  measure(setup);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  using namespace corvid::bench;
  Setup setup;
  return run(
      {.name = "fleet",
       .purpose = "Posts through a gateway into a real log, and from there into a database,\n"
                  "and prints what gateway and loader take for an event.",
       .numbers = {{"--nodes", &setup.nodes},
                   {"--connections", &setup.connections},
                   {"--seconds", &setup.seconds}},
       .texts = {},
       .measure = [&](const std::string&) { measureAll(setup); }},
      argc, argv);
}
