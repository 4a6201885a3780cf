// Whether a load's events stand in the database.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "bench/devices/Tally.h"
#include "gateway/loader/Database.h"

namespace corvid::bench {

struct Stored {
  std::uint64_t acknowledged = 0;  // events
  std::uint64_t stored = 0;        // rows of the run
  std::uint64_t lost = 0;          // acknowledged, and no row
  std::uint64_t twice = 0;         // rows beside the first of an event
  std::uint64_t refused = 0;       // rows of posts that were refused
  std::uint64_t setApart = 0;      // messages of the run that could not be rows

  bool isSound() const { return lost == 0 && twice == 0 && refused == 0; }
  std::string text() const;
};

// Counted by SQL, and again until nothing is missing or for `settle`: loaders may be behind.
// Throws fleet::DatabaseError.
Stored findStored(const Tally& tally, const std::string& database, std::chrono::seconds settle);

}  // namespace corvid::bench
