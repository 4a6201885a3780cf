// bench/chains: what an event costs the daemon in a session of level 2, beside one outside any
// chain.
//
// Blocks of events from either session take turns in one daemon, so that both meet the same
// machine; the ratio is the median over the pairs of blocks. Then the same with a top that
// aggregates, whose client gets every event of the chain.
//
// With --only it sends one block from one of them and compares nothing: for a PROGRAM that counts
// the daemon's instructions.
#include <fmt/format.h>

#include <vector>

#include "bench/Bench.h"
#include "bench/Program.h"

#ifndef CORVID_DAEMON
#error "CORVID_DAEMON names the daemon to measure"
#endif

namespace corvid::bench {
namespace {

constexpr int eventsPerFlush = 50;

struct Options {
  std::string corvidd = CORVID_DAEMON;
  int events = 5'000;  // of a block
  int pairs = 40;
};

// CPU of the daemon for a block, in microseconds an event. Every post has been answered at its end.
double measureBlock(MeasuredProcess& daemon, Session& session, int events) {
  const auto before = daemon.cpuTime();
  for (int i = 0; i < events; ++i) {
    session.send(static_cast<std::uint64_t>(i), false);
    if ((i + 1) % eventsPerFlush == 0) session.flush();
  }
  session.flush();
  session.await();
  return std::chrono::duration<double, std::micro>(daemon.cpuTime() - before).count() / events;
}

struct Comparison {
  double outside = 0;  // median, microseconds an event
  double inside = 0;
  double ratio = 0;
};

// A daemon with a session of its own and a chain of three.
struct Stage {
  Stage(Bench& bench, const std::string& program, bool aggregates)
      : daemon(bench.startDaemon({program})),
        outside(bench.rootFolder(), {.clientType = nginxClient, .clientName = "Outside"}),
        top(bench.rootFolder(), {.clientType = chainClients[0], .aggregates = aggregates}),
        child(bench.rootFolder(), {.clientType = chainClients[1]}),
        inside(bench.rootFolder(), {.clientType = chainClients[2]}) {}

  std::unique_ptr<MeasuredProcess> daemon;
  Session outside, top, child, inside;
};

Comparison compare(Bench& bench, const Options& options, bool aggregates) {
  Stage stage(bench, options.corvidd, aggregates);
  const auto measure = [&](Session& session) {
    return measureBlock(*stage.daemon, session, options.events);
  };
  measure(stage.outside);
  measure(stage.inside);

  std::vector<double> outsides, insides, ratios;
  for (int pair = 0; pair < options.pairs; ++pair) {
    const bool outsideFirst = pair % 2 == 0;
    double first = measure(outsideFirst ? stage.outside : stage.inside);
    double second = measure(outsideFirst ? stage.inside : stage.outside);
    if (!outsideFirst) std::swap(first, second);
    outsides.push_back(first);
    insides.push_back(second);
    ratios.push_back(second / first);
  }
  return {median(std::move(outsides)), median(std::move(insides)), median(std::move(ratios))};
}

void print(const char* name, const Comparison& result) {
  fmt::print("{:34}{:>10.2f}{:>10.2f}{:>10.3f}\n", name, result.outside, result.inside,
             result.ratio);
}

void measure(const Options& options, const std::string& only, const std::string& folder) {
  if (!only.empty() && only != "outside" && only != "level2")
    throw std::runtime_error("--only takes outside or level2");

  Bench bench(folder);
  if (!only.empty()) {
    Stage stage(bench, options.corvidd, false);
    measureBlock(*stage.daemon, only == "level2" ? stage.inside : stage.outside, options.events);
    return;
  }
  fmt::print("daemon CPU, us an event           {:>10}{:>10}{:>10}\n", "outside", "level 2",
             "ratio");
  print("nobody aggregates", compare(bench, options, false));
  print("the top aggregates", compare(bench, options, true));
}

}  // namespace
}  // namespace corvid::bench

int main(int argc, char** argv) {
  corvid::bench::Options options;
  std::string only;
  return corvid::bench::run(
      {.name = "chains",
       .purpose = "Compares events of a session of level 2 with those of one outside any chain.",
       .numbers = {{"--events", &options.events}, {"--pairs", &options.pairs}},
       .texts = {{"--corvidd", &options.corvidd}, {"--only", &only}},
       .measure =
           [&](const std::string& folder) { corvid::bench::measure(options, only, folder); }},
      argc, argv);
}
