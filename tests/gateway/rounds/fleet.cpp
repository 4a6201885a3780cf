// Tries the whole path from devices to the database: faults from a seed while devices post, and
// what of the acknowledged posts is there afterwards.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <random>
#include <vector>

#include "base/CommandLine.h"
#include "gateway/loader/Database.h"
#include "tests/gateway/rounds/PathRound.h"
#include "tests/support/Disks.h"

namespace corvid::fleet {

namespace {

struct Options {
  int rounds = 16;
  int seed = 1;
  int minutes = 1000000;
  std::vector<std::string> faults;  // empty: all
  bool hasDisks = false;            // each node its own
};

constexpr std::chrono::seconds startLimit{120};
constexpr double never = 60;

struct Totals {
  std::size_t rounds = 0, notWhole = 0;
  Device::Sums sums;
  Stored stored;
  std::vector<double> gaps, first, every;

  void add(const PathRoundResult& result) {
    ++rounds;
    if (!result.isWholeAgain) ++notWhole;
    sums.posts += result.sums.posts;
    sums.acknowledged += result.sums.acknowledged;
    stored += result.stored;
    gaps.push_back(result.gap.count());
    first.push_back(result.first ? result.first->count() : never);
    every.push_back(result.every ? result.every->count() : never);
  }
};

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values.at(values.size() / 2);
}

void print(const std::string& name, const Totals& totals) {
  fmt::print(
      "| {} | {} | {} | {} | {} | {} | {} | {} | {} | {:.1f}, {:.1f} | {:.1f}, {:.1f} | {:.1f}, {:.1f} |\n",
      name, totals.rounds, totals.sums.posts, totals.sums.acknowledged, totals.stored.lost,
      totals.stored.twice, totals.stored.rejected, totals.stored.wrong, totals.notWhole,
      median(totals.gaps), std::ranges::max(totals.gaps), median(totals.first),
      std::ranges::max(totals.first), median(totals.every), std::ranges::max(totals.every));
}

void print(int round, PathFaultKind kind, const PathRoundResult& result) {
  fmt::print(
      "round {} {}: {:.1f} s, gap {:.1f} s, again after {:.1f} s, each device after {:.1f} s, {} posts, {} "
      "acknowledged, {} lost, {} twice, {} rejected, {} wrong; of {} tries {} unanswered, {} 5xx, "
      "{} others{}\n",
      round, wordFor(kind), result.length.count(), result.gap.count(),
      result.first ? result.first->count() : -1.0, result.every ? result.every->count() : -1.0,
      result.sums.posts, result.sums.acknowledged, result.stored.lost, result.stored.twice,
      result.stored.rejected, result.stored.wrong, result.sums.tries, result.sums.unanswered,
      result.sums.serverFaults, result.sums.otherFaults,
      result.isDead         ? ", a node did not come back when started again either"
      : result.isWholeAgain ? ""
                            : ", a node did not come back");
  std::fflush(stdout);
}

std::vector<PathFaultKind> kindsOf(const Options& options) {
  std::vector<PathFaultKind> kinds;
  for (std::size_t at = 0; at < pathFaultKinds; ++at) {
    const auto kind = static_cast<PathFaultKind>(at);
    if (kind == PathFaultKind::fullDisk && !options.hasDisks) continue;
    if (options.faults.empty() || std::ranges::count(options.faults, wordFor(kind)) > 0)
      kinds.push_back(kind);
  }
  if (kinds.size() < options.faults.size() || kinds.empty())
    throw std::runtime_error("there is no fault of that name, or only for the superuser");
  return kinds;
}

// Events of all rounds that stand there more than once by now, whatever came late.
std::string repeatedAtLast(ScratchFleet& fleet) {
  const auto rows = Database(fleet.postgres().target())
                        .run(
                            "SELECT count(*) FROM (SELECT 1 FROM corvid.event "
                            "GROUP BY client_id, payload->>'post', number HAVING count(*) > 1) "
                            "AS repeated");
  return rows.at(0).at(0).value_or("");
}

int runRounds(const Options& options) {
  std::vector<PathFaultKind> kinds = kindsOf(options);
  std::mt19937_64 random(static_cast<std::uint64_t>(options.seed));
  RabbitCluster cluster(options.hasDisks ? LogCluster::Disks::own : LogCluster::Disks::shared);
  if (!cluster.awaitAll(startLimit))
    throw std::runtime_error("the cluster does not come up: " + cluster.lastWords(0));
  const ScratchFolder scratch;
  const lab::TLSIdentity identity(scratch.path("identity"));
  // All devices have one address here.
  ScratchFleet fleet({.logURL = cluster.url(),
                      .gateways = PathFault::parts,
                      .loaders = PathFault::parts,
                      .limits = "client-requests = 100000\nclient-time = 100000\n"},
                     identity);
  fleet.awaitReady();
  std::map<PathFaultKind, Totals> byKind;
  Totals all;
  bool isDead = false;
  const auto end = Device::Clock::now() + std::chrono::minutes(options.minutes);
  for (int round = 0; round < options.rounds && !isDead && Device::Clock::now() < end; ++round) {
    const std::size_t at = static_cast<std::size_t>(round) % kinds.size();
    if (at == 0) std::ranges::shuffle(kinds, random);
    const PathRoundResult result =
        runPathRound({cluster, fleet, identity}, kinds[at], fmt::format("r{}", round), random);
    print(round, kinds[at], result);
    byKind[kinds[at]].add(result);
    all.add(result);
    isDead = result.isDead;
  }
  fmt::print(
      "\n| fault | rounds | posts | acknowledged | lost | twice | rejected | wrong | a node did not "
      "come back | gap, s: median, longest | again after, s | each device, s |\n"
      "|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const auto& [kind, totals] : byKind) print(std::string(wordFor(kind)), totals);
  print("all", all);
  const std::string repeated = repeatedAtLast(fleet);
  fmt::print("events that stand twice at last: {}\n", repeated);
  return !isDead && repeated == "0" && all.stored.lost + all.stored.twice + all.stored.wrong == 0 &&
                 all.stored.rejected > 0
             ? 0
             : 1;
}

}  // namespace

}  // namespace corvid::fleet

int main(int count, char** arguments) {
  using namespace corvid;
  fleet::Options options;
  CLI::App app("Tries the path from devices to the database under faults", "fleet_rounds");
  addCommonOptions(app, "1");
  addNumber(app, "--rounds", options.rounds, 1, 100000, "How many rounds");
  addNumber(app, "--seed", options.seed, 1, 1000000000, "What the faults are drawn from");
  addNumber(app, "--minutes", options.minutes, 1, 1000000, "Begin no round later than this");
  app.add_option("--fault", options.faults, "Only this one and others that are named so");
  if (const auto status = readCommandLine(app, {arguments + 1, arguments + count})) return *status;
  try {
    const auto full = fleet::wordFor(fleet::PathFaultKind::fullDisk);
    const bool needsDisks = options.faults.empty() || std::ranges::count(options.faults, full) > 0;
    options.hasDisks = needsDisks && geteuid() == 0 && takeOwnMounts();
    return fleet::runRounds(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fleet_rounds: %s\n", error.what());
    return 1;
  }
}
