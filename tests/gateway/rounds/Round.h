#pragma once

#include <chrono>
#include <optional>
#include <random>
#include <string>

#include "tests/gateway/rounds/Candidate.h"
#include "tests/gateway/rounds/Fault.h"
#include "tests/gateway/rounds/Load.h"

namespace corvid::fleet {

// What one round showed.
struct RoundResult {
  Load::Sums sums;
  std::size_t undelivered = 0;  // acknowledged, not delivered, and still in the log
  std::optional<std::chrono::duration<double>> again;  // from the fault's end to acknowledgements
  std::chrono::duration<double> held{};                // the fault
  bool readsMeanwhile = false;
  bool isDead = false;        // they do not serve either when they were started once more
  bool isWholeAgain = false;  // every node serves without having been started once more
};

// Messages are published, the fault comes and goes, everything is read back. `name`: another one
// for each round.
RoundResult runRound(Candidate& candidate, FaultKind kind, const std::string& stream,
                     const std::string& name, std::mt19937_64& random);

}  // namespace corvid::fleet
