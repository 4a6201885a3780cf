// simulate SEED [YEARS]: a seed's devices for so long; the first difference from the model ends it.
// With --seeds N, so many seeds from that one on.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>

#include "tests/simulation/World.h"

int main(int argc, char** argv) {
  using namespace corvid::simulation;
  CLI::App app{"Lets simulated devices live, beside a model of what their daemons must do."};
  unsigned seed = 0;
  double years = 1;
  unsigned seeds = 1;
  unsigned devices = 1;
  bool tellsWhatWasMet = false;
  app.add_option("SEED", seed, "What happens is drawn from it")->required();
  app.add_option("YEARS", years, "How long each device lives")->check(CLI::PositiveNumber);
  app.add_option("--seeds", seeds, "So many seeds, from SEED on");
  app.add_option("--devices", devices, "Devices that live at the same time, for each seed");
  app.add_flag("--met", tellsWhatWasMet, "Tell what was met");
  CLI11_PARSE(app, argc, argv);

  const auto until = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::duration<double>(years * 365 * 86400));
  const auto begin = std::chrono::steady_clock::now();
  std::uint64_t steps = 0;
  TraceHash hash;
  std::map<std::string, std::uint64_t> met;
  for (unsigned left = seeds; left > 0; --left, ++seed) {
    try {
      World world(seed, devices);
      world.run(until);
      steps += world.steps();
      hash.add(fmt::format("{:x}", world.hash()));
      for (const auto& [word, count] : world.met()) met[word] += count;
    } catch (const Difference& difference) {
      fmt::print(stderr, "simulate: {}", difference.what());
      return 1;
    }
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  if (tellsWhatWasMet)
    for (const auto& [word, count] : met) fmt::print("{:>12} {}\n", count, word);
  fmt::print(
      "simulate: {} seeds, {} devices each, {:.3f} years: {} steps as the model says, trace {:016x}, {:.1f} s\n",
      seeds, devices, years, steps, hash.value(), took.count());
  return 0;
}
