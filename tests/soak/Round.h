// One round of a soak: clients and faults for a while, then rest.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/soak/History.h"
#include "tests/soak/Stand.h"
#include "tests/support/ChildProcess.h"

namespace corvid::soak {

// Threads: one.
class Round {
 public:
  struct Plan {
    std::uint64_t seed = 0;
    int number = 0;
    Time length = 0;
    std::vector<Fault> faults{};  // as drawFaults gives them
  };

  // `before` is the ledger of the daemon that runs, from the end of the round before.
  Round(Stand& stand, Plan plan, const Ledger& before);

  // Plays it to its end, and waits until the daemon has nothing left to do. False where something
  // broke that the history cannot tell; `trouble` then says what.
  bool run();

  const History& history() const { return _history; }
  const std::string& trouble() const { return _trouble; }
  const Ledger& ledgerAtRest() const { return _history.lives.back().after; }
  int kills() const { return _kills; }
  int stops() const { return _stops; }

 private:
  struct Step {
    Time at;
    bool isBegin;
    std::size_t fault;  // of the plan
  };

  void startClients(int process, Time left);
  std::string journalOf(int process, int incarnation) const;
  bool play();
  bool carryOut(const Step& step);
  bool replaceDaemon(FaultKind how);
  bool awaitClients();
  bool awaitRest();
  bool look();
  void readJournals();
  bool fail(std::string what);

  Stand& _stand;
  const Plan _plan;
  Time _begin = 0;
  bool _isFrozen = false;
  int _kills = 0;
  int _stops = 0;
  std::map<int, std::unique_ptr<ChildProcess>> _clients;
  std::map<int, int> _incarnations;
  std::map<std::size_t, std::size_t> _carriedOut;  // place in the history by that in the plan
  History _history;
  std::string _trouble;
};

}  // namespace corvid::soak
