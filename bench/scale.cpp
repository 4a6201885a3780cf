// bench/scale: what a batched event costs the daemon as clients, batches and payloads grow, beside
// the bare program, and what a session costs that has nothing to say.
//
// Prints a row a measurement, for bench/plot: what grows, how far, CPU of the daemon and of the
// bare program in microseconds an event.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "bench/BareRun.h"
#include "bench/Bench.h"
#include "bench/Program.h"
#include "bench/Samples.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int events = 20'000;  // of a measurement, at least
  int sessions = 200;   // without anything to say; one user may have 256
};

struct Load {
  int clients = 1;
  int eventsPerPost = 50;
  std::size_t textBytes = 0;
};

using Sessions = std::vector<std::unique_ptr<Session>>;

Sessions open(const Bench& bench, int count, std::size_t textBytes) {
  Sessions sessions;
  for (int i = 0; i < count; ++i)
    sessions.push_back(std::make_unique<Session>(
        bench.rootFolder(),
        Session::Description{.clientType = nginxClient, .textBytes = textBytes}));
  for (const auto& session : sessions) session->flush();
  for (const auto& session : sessions) session->await();
  return sessions;
}

// Clients send in turns, a post of each.
double daemonMicros(Bench& bench, const Options& options, const Load& load) {
  const auto daemon = bench.startDaemon({options.corvidd});
  const Sessions sessions = open(bench, load.clients, load.textBytes);
  const int perRound = load.clients * load.eventsPerPost;
  const int rounds = std::max(1, (options.events + perRound - 1) / perRound);
  const auto before = daemon->cpuTime();
  std::uint64_t number = 0;
  for (int round = 0; round < rounds; ++round)
    for (const auto& session : sessions) {
      for (int i = 0; i < load.eventsPerPost; ++i) session->send(number++, false);
      session->flush();
    }
  for (const auto& session : sessions) {
    session->await();
    if (session->failed() > 0) throw std::runtime_error("the daemon refused events");
  }
  return std::chrono::duration<double, std::micro>(daemon->cpuTime() - before).count() /
         static_cast<double>(number);
}

double bareMicros(const Bench& bench, const Options& options, const Load& load,
                  const Dictionary& record) {
  return measureBare({.events = options.events,
                      .eventsPerPost = load.eventsPerPost,
                      .textBytes = load.textBytes,
                      .url = bench.nginx().url("/events"),
                      .caFile = bench.caFile(),
                      .record = &record},
                     bench.rootFolder());
}

void measureLoads(Bench& bench, const Options& options) {
  const Dictionary record = firstRecord(takeSamples(bench, options.corvidd, 1).lone);
  fmt::print("{:<10}{:>10}{:>14}{:>14}\n", "grows", "to", "daemon", "bare");
  const auto row = [&](const char* what, std::size_t value, const Load& load) {
    fmt::print("{:<10}{:>10}{:>14.2f}{:>14.2f}\n", what, value, daemonMicros(bench, options, load),
               bareMicros(bench, options, load, record));
    std::fflush(stdout);
  };
  for (const int clients : {1, 4, 20, 100, 200})
    row("clients", static_cast<std::size_t>(clients), {.clients = clients});
  for (const int batch : {1, 5, 20, 50, 200, 1000})
    row("batch", static_cast<std::size_t>(batch), {.eventsPerPost = batch});
  for (const std::size_t bytes : {0u, 250u, 1000u, 4000u, 16000u})
    row("payload", bytes, {.textBytes = bytes});
}

void measureIdleSessions(Bench& bench, const Options& options) {
  const auto daemon = bench.startDaemon({options.corvidd});
  const Sessions first = open(bench, 1, 0);
  const Memory before = daemon->memory();
  const Sessions sessions = open(bench, options.sessions, 0);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const Memory after = daemon->memory();
  fmt::print("\na session that has nothing to say: {:.1f} KiB resident, of {}\n",
             (after.residentMB - before.residentMB) * 1024 / options.sessions, options.sessions);
}

void measure(const Options& options, const std::string& folder) {
  Bench bench(folder);
  measureLoads(bench, options);
  measureIdleSessions(bench, options);
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  return corvid::bench::run(
      {.name = "scale",
       .purpose = "Says how an event's cost grows with clients, batches and payloads.",
       .numbers = {{"--events", &options.events}, {"--sessions", &options.sessions}},
       .texts = {{"--corvidd", &options.corvidd}},
       .measure = [&](const std::string& folder) { corvid::bench::measure(options, folder); }},
      argc, argv);
}
