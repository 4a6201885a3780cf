// Rounds until the time is over, each of them judged.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/soak/Belongings.h"
#include "tests/soak/Oracle.h"
#include "tests/soak/Round.h"
#include "tests/soak/Stand.h"

namespace corvid::soak {

// Prints what goes on to standard output.
//
// Threads: one.
class Soak {
 public:
  Soak(std::uint64_t seed, std::chrono::seconds time, bool hasSmallDisk);

  // The first round, which is short and without faults, shows what a daemon at rest has. After a
  // run of some minutes the daemon must also give up what it keeps for a while. False after the
  // first round that is not as it must be; what broke, when, and where the folder is then has been
  // printed.
  bool run();

 private:
  bool runRound(Time length, std::vector<Fault> faults);
  std::vector<std::string> judgeBelongings();
  // Waits until the daemon keeps no connection for later exchanges any more.
  bool judgeIdle();
  void add(const Oracle::Figures& figures, const Round& round);
  void printSummary() const;
  double minutes() const;

  const std::uint64_t _seed;
  const std::chrono::seconds _time;
  const Time _begin = now();
  Stand _stand;
  int _round = 0;
  Ledger _ledger;  // of the daemon that runs, at its last rest
  std::optional<Belongings> _atRest;
  Belongings _latest;
  int _kills = 0;
  int _stops = 0;
  std::map<std::string, int> _faults;
  Oracle::Figures _figures;
  Ledger _counted;  // by all daemons, as far as they were seen
};

}  // namespace corvid::soak
