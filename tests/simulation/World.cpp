#include "tests/simulation/World.h"

#include <fmt/format.h>

#include "tests/simulation/TraceHash.h"

namespace corvid::simulation {

World::World(unsigned seed, unsigned devices, const Defects& defects) {
  for (unsigned number = 0; number < devices; ++number) {
    _lives.push_back(std::make_unique<Life>(seed, number, defects));
    _queue.emplace(_lives.back()->due(), number);
  }
}

void World::run(std::chrono::microseconds until) {
  while (!_queue.empty() && _queue.top().first < until) {
    const std::size_t next = _queue.top().second;
    _queue.pop();
    _lives[next]->step();
    _queue.emplace(_lives[next]->due(), next);
  }
}

std::uint64_t World::steps() const {
  std::uint64_t sum = 0;
  for (const auto& life : _lives) sum += life->steps();
  return sum;
}

std::uint64_t World::hash() const {
  TraceHash hash;
  for (const auto& life : _lives) hash.add(fmt::format("{:x}", life->hash()));
  return hash.value();
}

std::map<std::string, std::uint64_t> World::met() const {
  std::map<std::string, std::uint64_t> all;
  for (const auto& life : _lives)
    for (const auto& [word, count] : life->met()) all[word] += count;
  return all;
}

}  // namespace corvid::simulation
