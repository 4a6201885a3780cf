#include "tests/soak/Round.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>
#include <tuple>
#include <utility>

#include "base/Reading.h"
#include "tests/soak/ClientJournal.h"
#include "tests/soak/FaultScript.h"

namespace corvid::soak {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds tick{50};
constexpr Time lookEvery = 2000;
// Generous: other programs may have the machine.
constexpr seconds patienceForClients{120};
constexpr seconds patienceForRest{180};
constexpr seconds patienceForStop{60};

constexpr std::string_view lostLine = "main: Stopped with ";

std::int64_t numberIn(std::string_view line, std::string_view after) {
  const std::size_t at = line.find(after);
  return at == line.npos ? 0 : std::atoll(std::string(line.substr(at + after.size())).c_str());
}

}  // namespace

Round::Round(Stand& stand, Plan plan, const Ledger& before)
    : _stand(stand), _plan(std::move(plan)) {
  _history.lives.push_back({.begin = now(), .before = before, .after = before});
}

bool Round::fail(std::string what) {
  if (_trouble.empty()) _trouble = std::move(what);
  return false;
}

std::string Round::journalOf(int process, int incarnation) const {
  return fmt::format("{}/journals/r{}p{}i{}", _stand.path(), _plan.number, process, incarnation);
}

void Round::startClients(int process, Time left) {
  const int incarnation = _incarnations[process]++;
  const std::uint64_t seed = _plan.seed * 7919 + static_cast<std::uint64_t>(_plan.number) * 1000 +
                             static_cast<std::uint64_t>(process * 10 + incarnation);
  _clients[process] = std::make_unique<ChildProcess>(ChildProcess::Program{
      .command = {CORVID_SOAK_CLIENT, _stand.path(), journalOf(process, incarnation),
                  fmt::format("r{}p{}i{}", _plan.number, process, incarnation),
                  std::to_string(seed % 1'000'000'007), std::to_string(sessionsPerProcess),
                  fmt::format("{:.1f}", static_cast<double>(left) / 1000)}});
}

bool Round::run() {
  std::filesystem::create_directories(_stand.path() + "/journals");
  _begin = now();
  for (int process = 0; process < clientProcesses; ++process) startClients(process, _plan.length);
  const bool wasPlayed = play() && awaitClients() && awaitRest();
  readJournals();
  for (std::string& line : _stand.takeLog()) _history.log.push_back(std::move(line));
  return wasPlayed;
}

bool Round::play() {
  std::vector<Step> steps;
  for (std::size_t i = 0; i < _plan.faults.size(); ++i) {
    if (!_stand.canHave(_plan.faults[i].kind)) continue;
    steps.push_back({_plan.faults[i].begin, true, i});
    steps.push_back({_plan.faults[i].end, false, i});
  }
  std::ranges::sort(
      steps, {}, [](const Step& step) { return std::tuple(step.at, step.fault, !step.isBegin); });
  auto next = steps.begin();
  Time nextLook = lookEvery;
  while (next != steps.end() || now() - _begin < _plan.length) {
    const Time at = now() - _begin;
    if (next != steps.end() && next->at <= at) {
      if (!carryOut(*next++)) return false;
    } else if (at >= nextLook) {
      if (!_isFrozen && !look()) return false;
      nextLook = at + lookEvery;
    } else {
      std::this_thread::sleep_for(tick);
    }
  }
  return true;
}

bool Round::carryOut(const Step& step) {
  const Fault& planned = _plan.faults[step.fault];
  if (!step.isBegin) {
    Fault& fault = _history.faults[_carriedOut.at(step.fault)];
    if (fault.kind == FaultKind::killClient) {
      startClients(std::stoi(fault.target), std::max<Time>(_begin + _plan.length - now(), 500));
    } else if (fault.kind == FaultKind::freezeClient) {
      _clients.at(std::stoi(fault.target))->signal(SIGCONT);
    } else {
      if (fault.kind == FaultKind::freezeDaemon) _isFrozen = false;
      _stand.end(fault);
    }
    fault.end = now();
    return true;
  }
  _carriedOut[step.fault] = _history.faults.size();
  // Until it has ended it lasts.
  _history.faults.push_back({planned.kind, planned.target, now(), now() + 10 * _plan.length});
  const Fault& fault = _history.faults.back();
  switch (fault.kind) {
    case FaultKind::killClient: _clients.at(std::stoi(fault.target))->kill(); return true;
    case FaultKind::freezeClient: _clients.at(std::stoi(fault.target))->freeze(); return true;
    case FaultKind::killDaemon:
    case FaultKind::stopDaemon: return replaceDaemon(fault.kind);
    case FaultKind::freezeDaemon: _isFrozen = true; [[fallthrough]];
    default: _stand.begin(fault); return true;
  }
}

bool Round::replaceDaemon(FaultKind how) {
  Life& life = _history.lives.back();
  const bool isKill = how == FaultKind::killDaemon;
  ++(isKill ? _kills : _stops);
  life.ending = isKill ? Life::Ending::killed : Life::Ending::stopped;
  _stand.daemon().signal(isKill ? SIGKILL : SIGTERM);
  const std::optional<int> status = _stand.daemon().waitForExit(patienceForStop);
  if (status != (isKill ? -SIGKILL : 0))
    return fail(fmt::format("the daemon ended with {}", status.value_or(999)));
  life.end = now();
  for (std::string& line : _stand.takeLog()) {
    life.lostAtStop += numberIn(line, lostLine);
    _history.log.push_back(std::move(line));
  }
  _history.lives.push_back({.begin = now()});
  return _stand.startDaemon() || fail("the daemon does not start");
}

bool Round::look() {
  const auto status = _stand.status();
  if (!status) {
    if (const auto ended = _stand.daemon().waitForExit(milliseconds(0)))
      return fail(fmt::format("the daemon has ended by itself with {}", *ended));
    return fail("the daemon does not say how it is");
  }
  const Dictionary* const ledger = dictionaryAt(*status, "ledger");
  if (ledger == nullptr) return fail("the daemon does not say what it counted");
  _history.lives.back().after = Ledger::of(*ledger);
  return _history.lives.back().after.adds() ||
         fail("the ledger does not add up while the daemon works");
}

bool Round::awaitClients() {
  const auto deadline = std::chrono::steady_clock::now() + patienceForClients;
  for (const auto& [process, client] : _clients) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    const auto status = client->waitForExit(std::max(left, milliseconds(0)));
    const bool wasKilled = status == -SIGKILL;
    if (status != 0 && !wasKilled)
      return fail(fmt::format("the clients of process {} ended with {}", process,
                              status ? std::to_string(*status) : "no end"));
  }
  return true;
}

bool Round::awaitRest() {
  std::string last;
  const auto rests = [&] {
    const auto status = _stand.status();
    if (!status) return false;
    const Dictionary* const ledger = dictionaryAt(*status, "ledger");
    if (ledger == nullptr) return false;
    Life& life = _history.lives.back();
    life.after = Ledger::of(*ledger);
    last = fmt::format("{} sessions, {} held, {} under way",
                       integerAt(*status, "sessions").value_or(-1), life.after.held,
                       life.after.underWay);
    return integerAt(*status, "sessions") == 0 && life.after.held == 0 && life.after.underWay == 0;
  };
  if (!waitUntil(rests, patienceForRest, milliseconds(200)))
    return fail("the daemon does not come to rest: " + last);
  _history.lives.back().end = now();
  return true;
}

void Round::readJournals() {
  for (const auto& [process, incarnations] : _incarnations)
    for (int incarnation = 0; incarnation < incarnations; ++incarnation)
      ClientJournal::read(journalOf(process, incarnation), _history);
  for (Stand::Record& record : _stand.takeArrivals()) {
    if (record.mark.empty()) {
      _history.unmarked.push_back(record.arrival);
    } else if (const auto event = _history.events.find(record.mark);
               event != _history.events.end()) {
      event->second.arrivals.push_back(record.arrival);
    } else {
      _history.strangers.push_back(std::move(record.mark));
    }
  }
}

}  // namespace corvid::soak
