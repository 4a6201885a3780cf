#include "tests/soak/Soak.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

#include "base/Sanitizer.h"
#include "tests/soak/FaultScript.h"
#include "tests/support/Waiting.h"

namespace corvid::soak {

namespace {

constexpr Time firstRound = 8'000;
constexpr Time shortestRound = 15'000;
constexpr Time longestRound = 40'000;
// What an allocator keeps varies from one rest to the next.
constexpr std::size_t memoryToSpare = std::size_t{hasSanitizer ? 512 : 24} << 20;
constexpr std::chrono::seconds patienceForBelongings{60};
// Connections are kept for a minute and a half.
constexpr std::chrono::seconds patienceForIdle{180};
constexpr std::chrono::minutes longEnoughForIdle{4};

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

}  // namespace

Soak::Soak(std::uint64_t seed, std::chrono::seconds time, bool hasSmallDisk)
    : _seed(seed), _time(time), _stand(seed % 2 == 1, hasSmallDisk) {}

double Soak::minutes() const { return static_cast<double>(now() - _begin) / 60'000; }

bool Soak::run() {
  for (const FaultKind kind : {FaultKind::fullDisk, FaultKind::clockStep})
    if (!_stand.canHave(kind)) say(fmt::format("soak: no {} here", nameOf(kind)));
  bool isGood = _stand.startDaemon() && runRound(firstRound, {});
  std::mt19937_64 random(_seed);
  const Time end = _begin + std::chrono::milliseconds(_time).count();
  while (isGood && now() + shortestRound < end) {
    const auto drawn = static_cast<Time>(random() % (longestRound - shortestRound));
    const Time length = std::min(shortestRound + drawn, end - now());
    isGood = runRound(length, drawFaults(_seed, _round, shortestRound + drawn));
  }
  if (isGood && _time >= longEnoughForIdle) isGood = judgeIdle();
  printSummary();
  return isGood;
}

bool Soak::judgeIdle() {
  const auto connections = [&] { return Belongings::of(_stand.daemon().pid()).connections; };
  if (waitUntil([&] { return connections() == 0; }, patienceForIdle, std::chrono::seconds(1))) {
    say(fmt::format("soak: idle, it has {} KiB",
                    Belongings::of(_stand.daemon().pid()).memory >> 10));
    return true;
  }
  say(fmt::format("soak: FAILED with seed {}: idle for {} s it keeps {} connections", _seed,
                  patienceForIdle.count(), connections()));
  return false;
}

bool Soak::runRound(Time length, std::vector<Fault> faults) {
  std::erase_if(faults, [&](const Fault& fault) { return fault.end > length; });
  const double began = minutes();
  Round round(_stand, {_seed, _round, length, std::move(faults)}, _ledger);
  const bool wasRun = round.run();
  Oracle oracle(round.history());
  std::vector<std::string> complaints = oracle.complaints();
  if (!wasRun) complaints.insert(complaints.begin(), round.trouble());
  if (wasRun) std::ranges::move(judgeBelongings(), std::back_inserter(complaints));
  add(oracle.figures(), round);
  say(fmt::format(
      "soak: {:5.1f} min, round {}: {} events answered, {} arrived, {} faults, {} MiB at rest",
      minutes(), _round, oracle.figures().answered, oracle.figures().arrived,
      round.history().faults.size(), _latest.memory >> 20));
  if (complaints.empty()) {
    _ledger = round.ledgerAtRest();
    ++_round;
    _stand.cleanUp();
    return true;
  }
  say(fmt::format("soak: FAILED with seed {} in round {}, which began after {:.1f} minutes:", _seed,
                  _round, began));
  for (const std::string& complaint : complaints) say("  " + complaint);
  for (const Fault& fault : round.history().faults)
    say(fmt::format("  fault {} {} from {} to {}", nameOf(fault.kind), fault.target, fault.begin,
                    fault.end));
  say("soak: everything is kept in " + _stand.keep());
  return false;
}

std::vector<std::string> Soak::judgeBelongings() {
  if (!_atRest) _atRest = Belongings::of(_stand.daemon().pid());
  std::vector<std::string> complaints;
  (void)waitUntil(
      [&] {
        _latest = Belongings::of(_stand.daemon().pid());
        complaints = complaintsAbout(_latest, *_atRest, memoryToSpare);
        return complaints.empty();
      },
      patienceForBelongings, std::chrono::milliseconds(200));
  return complaints;
}

void Soak::add(const Oracle::Figures& figures, const Round& round) {
  _figures.answered += figures.answered;
  _figures.arrived += figures.arrived;
  for (const auto& [word, count] : figures.dropped) _figures.dropped[word] += count;
  for (const auto& [word, count] : figures.missing) _figures.missing[word] += count;
  _kills += round.kills();
  _stops += round.stops();
  for (const Life& life : round.history().lives) {
    const Ledger counted = life.after.since(life.before);
    _counted.accepted += counted.accepted;
    _counted.delivered += counted.delivered;
    for (const auto& [word, count] : counted.words) _counted.words[word] += count;
  }
  for (const Fault& fault : round.history().faults) ++_faults[std::string(nameOf(fault.kind))];
}

void Soak::printSummary() const {
  say(fmt::format("soak: {:.1f} minutes, seed {}, {} rounds, {} SIGKILL, {} SIGTERM of the daemon",
                  minutes(), _seed, _round, _kills, _stops));
  if (_atRest)
    say(fmt::format(
        "soak: at rest, first and last: {} and {} descriptors, {} and {} threads, {} and {} KiB",
        _atRest->descriptors, _latest.descriptors, _atRest->threads, _latest.threads,
        _atRest->memory >> 10, _latest.memory >> 10));
  say(fmt::format("soak: {} events answered, {} arrived once", _figures.answered,
                  _figures.arrived));
  for (const auto& [word, count] : _figures.dropped)
    say(fmt::format("soak:   {} were answered as {}", count, word));
  for (const auto& [word, count] : _figures.missing)
    say(fmt::format("soak:   {} did not arrive: {}", count, word));
  say(fmt::format(
      "soak: daemons counted, with messages of their own and as far as they were seen: {} accepted, "
      "{} delivered",
      _counted.accepted, _counted.delivered));
  for (const auto& [word, count] : _counted.words) say(fmt::format("soak:   {} {}", count, word));
  for (const auto& [kind, count] : _faults) say(fmt::format("soak:   {} x {}", count, kind));
}

}  // namespace corvid::soak
