#include "tests/soak/FaultScript.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <span>
#include <string>

namespace corvid::soak {

namespace {

using enum FaultKind;

constexpr FaultKind ofCollectors[] = {status404, status500, status503, refuse,  hang,     slow,
                                      reset,     hangUp,    garbage,   expired, cutAnswer};
constexpr FaultKind ofStorebags[] = {status404, status500, status503, hang,
                                     slow,      reset,     garbage,   cutAnswer};
constexpr FaultKind ofDaemon[] = {freezeDaemon, reload, killDaemon, stopDaemon};
constexpr FaultKind ofMachine[] = {clockStep, clockStep, clockWrong, fullDisk, fullDisk};

// Nothing begins or ends in the first and the last second.
constexpr Time margin = 1000;

class Script {
 public:
  Script(std::uint64_t seed, int round, Time length)
      : _random(seed * 1'000'003 + static_cast<std::uint64_t>(round)), _length(length) {}

  std::vector<Fault> draw() {
    const bool isCalm = below(5) == 0;
    clients();
    if (!isCalm) {
      for (const char* const collector : {"live", "bulk"})
        row(collector, ofCollectors, {1000, 8000}, {500, 4000});
      if (below(2) == 0) row("storebags", ofStorebags, {2000, 12000}, {1000, 4000});
      if (below(3) > 0) row("", ofMachine, {2000, 15000}, {1000, 5000});
      if (below(3) > 0) row("daemon", ofDaemon, {3000, 20000}, {200, 2500});
    }
    std::ranges::stable_sort(_faults, {}, &Fault::begin);
    return std::move(_faults);
  }

 private:
  struct Span {
    Time least;
    Time most;
  };
  std::uint64_t below(std::uint64_t limit) { return _random() % limit; }
  Time within(Span span) {
    return span.least +
           static_cast<Time>(below(static_cast<std::uint64_t>(span.most - span.least)));
  }

  // One fault after another, with pauses.
  void row(const std::string& target, std::span<const FaultKind> kinds, Span pause, Span length) {
    for (Time at = margin + within(pause); at < _length - margin; at += within(pause)) {
      const FaultKind kind = kinds[below(kinds.size())];
      const Time end = std::min(at + within(length), _length - margin);
      const bool isServer = target == "live" || target == "bulk" || target == "storebags";
      _faults.push_back({kind, isServer ? target : "", at, end});
      at = end;
    }
  }
  void clients() {
    for (int process = 0; process < clientProcesses; ++process) {
      const std::uint64_t draw = below(4);
      if (draw > 1) continue;
      const Time at = within({margin, _length - margin});
      const Time end = std::min(at + within({500, 6000}), _length - margin);
      _faults.push_back({draw == 0 ? killClient : freezeClient, std::to_string(process), at, end});
    }
  }

  std::mt19937_64 _random;
  const Time _length;
  std::vector<Fault> _faults;
};

}  // namespace

std::vector<Fault> drawFaults(std::uint64_t seed, int round, Time length) {
  return Script(seed, round, length).draw();
}

}  // namespace corvid::soak
