// Tries a replicated log: faults from a seed while numbered messages are published, and what of the
// acknowledged ones is there afterwards.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "base/CommandLine.h"
#include "tests/gateway/rounds/Measure.h"
#include "tests/gateway/rounds/Round.h"
#include "tests/support/Disks.h"

namespace corvid::fleet {

namespace {

struct Options {
  std::string candidate = "rabbit";
  int rounds = 40;
  int seed = 1;
  std::string fault;  // empty: all
  bool measures = false;
};

constexpr std::chrono::seconds startLimit{120};

double secondsOf(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

struct Totals {
  std::size_t rounds = 0, acknowledged = 0, lost = 0, undelivered = 0, repeated = 0, foreign = 0,
              unanswered = 0, notWhole = 0, dead = 0;
  double longest = 0;

  void add(const RoundResult& result) {
    ++rounds;
    acknowledged += result.sums.acknowledged;
    lost += result.sums.lost;
    undelivered += result.undelivered;
    repeated += result.sums.repeated;
    foreign += result.sums.foreign;
    unanswered += result.sums.unanswered;
    if (!result.isWholeAgain) ++notWhole;
    if (result.isDead) ++dead;
    longest = std::max(longest, result.again ? result.again->count() : 60.0);
  }
};

void print(const std::string& first, const Totals& totals) {
  fmt::print("| {} | {} | {} | {} | {} | {} | {} | {} | {} | {} | {:.1f} |\n", first, totals.rounds,
             totals.acknowledged, totals.lost, totals.undelivered, totals.repeated, totals.foreign,
             totals.unanswered, totals.notWhole, totals.dead, totals.longest);
}

// A stream stands long before its messages do, so that what is known of it is on every disk.
std::unique_ptr<Candidate> makeWithStream(const std::string& name, const std::string& stream) {
  auto candidate = makeCandidate(name, LogCluster::Disks::own);
  if (!candidate->cluster().awaitAll(startLimit))
    throw std::runtime_error("the cluster does not come up: " + candidate->cluster().lastWords(0));
  candidate->reader(stream, "loader");
  std::this_thread::sleep_for(std::chrono::seconds(3));
  sync();
  return candidate;
}

int runRounds(const Options& options) {
  if (!takeOwnMounts())
    throw std::runtime_error("only the superuser can give the nodes disks of their own");
  std::mt19937_64 random(static_cast<std::uint64_t>(options.seed));
  const std::string stream = "events";
  auto candidate = makeWithStream(options.candidate, stream);
  std::vector<FaultKind> order;
  for (std::size_t at = 0; at < faultKinds; ++at)
    if (const auto kind = static_cast<FaultKind>(at);
        options.fault.empty() || options.fault == wordFor(kind))
      order.push_back(kind);
  if (order.empty()) throw std::runtime_error("there is no fault of that name");
  std::map<FaultKind, Totals> byKind;
  Totals all;
  for (int round = 0; round < options.rounds; ++round) {
    const std::size_t at = static_cast<std::size_t>(round) % order.size();
    if (at == 0) std::ranges::shuffle(order, random);
    const std::string name = fmt::format("round{}", round);
    const RoundResult result = runRound(*candidate, order[at], stream, name, random);
    byKind[order[at]].add(result);
    all.add(result);
    fmt::print(
        "round {} {}{}: {:.1f} s, again after {:.1f} s, longest gap {:.1f} s, {} acknowledged, "
        "{} lost, {} undelivered, {} repeated, {} late, {} foreign, {} unanswered{}\n",
        round, wordFor(order[at]), result.readsMeanwhile ? " while read" : "", result.held.count(),
        result.again ? result.again->count() : -1.0, secondsOf(result.sums.longestGap),
        result.sums.acknowledged, result.sums.lost, result.undelivered, result.sums.repeated,
        result.sums.late, result.sums.foreign, result.sums.unanswered,
        result.isDead         ? ", a node did not come back when started again either"
        : result.isWholeAgain ? ""
                              : ", a node did not come back");
    std::fflush(stdout);
    if (!result.isDead) {
      candidate->clear(stream);
      continue;
    }
    candidate.reset();
    candidate = makeWithStream(options.candidate, stream);
  }
  fmt::print(
      "\n| fault | rounds | acknowledged | lost | undelivered | repeated | foreign | "
      "unanswered | a node did not come back | nor when started again | again after, s, longest |\n"
      "|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const auto& [kind, totals] : byKind) print(std::string(wordFor(kind)), totals);
  print("all", all);
  return all.lost + all.foreign == 0 ? 0 : 1;
}

}  // namespace

}  // namespace corvid::fleet

int main(int count, char** arguments) {
  using namespace corvid;
  fleet::Options options;
  CLI::App app("Tries a replicated log under faults, or measures it", "log_rounds");
  addCommonOptions(app, "1");
  app.add_option("--candidate", options.candidate, "rabbit or nats");
  addNumber(app, "--rounds", options.rounds, 1, 100000, "How many rounds");
  addNumber(app, "--seed", options.seed, 1, 1000000000, "What the faults are drawn from");
  app.add_option("--fault", options.fault, "Only this one, such as \"kill leader\"");
  app.add_flag("--measure", options.measures, "No faults: messages a second, and CPU a message");
  if (const auto status = readCommandLine(app, {arguments + 1, arguments + count})) return *status;
  try {
    if (options.measures) return fleet::measure(options.candidate);
    return fleet::runRounds(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "log_rounds: %s\n", error.what());
    return 1;
  }
}
