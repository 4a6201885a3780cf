// What the daemon posts, for measurements of the steps alone.
#pragma once

#include <string>

#include "base/Value.h"
#include "bench/Bench.h"

namespace corvid::bench {

// As JSON.
struct Samples {
  std::string batch;
  std::string lone;  // of a single event
};

// From a daemon of its own. Takes what has arrived in `bench` so far.
Samples takeSamples(Bench& bench, const std::string& corvidd, int eventsOfBatch);

Dictionary firstRecord(const std::string& message);

}  // namespace corvid::bench
