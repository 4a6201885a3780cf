// Devices that live at the same time, each in its turn.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "tests/simulation/Life.h"

namespace corvid::simulation {

// One queue of simulated time: the device whose next step is due first makes it.
//
// Threads: one.
class World {
 public:
  World(unsigned seed, unsigned devices, const Defects& defects = {});

  // Until so much time has passed since the beginning. Throws the first Difference.
  void run(std::chrono::microseconds until);

  std::uint64_t steps() const;
  // Of all that happened to all devices.
  std::uint64_t hash() const;
  // What was met, over all devices.
  std::map<std::string, std::uint64_t> met() const;

 private:
  using Due = std::pair<std::chrono::microseconds, std::size_t>;  // and whose
  std::vector<std::unique_ptr<Life>> _lives;
  std::priority_queue<Due, std::vector<Due>, std::greater<>> _queue;
};

}  // namespace corvid::simulation
