#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <exception>

#include "bench/devices/Load.h"
#include "bench/devices/Options.h"
#include "bench/devices/StoredCheck.h"

int main(int argc, char** argv) {
  using namespace corvid::bench;
  constexpr int failed = 1;
  try {
    const auto read = readFleetOptions({argv + 1, argv + argc});
    if (const int* const status = std::get_if<int>(&read)) return *status;
    const auto& options = std::get<FleetProgramOptions>(read);
    const Tally tally = runLoad(options.setup);
    fmt::print("{}", tally.text());
    std::fflush(stdout);
    if (options.database.empty()) return tally.acknowledged() > 0 ? 0 : failed;
    const Stored stored = findStored(tally, options.database, std::chrono::seconds(options.settle));
    fmt::print("{}", stored.text());
    return tally.acknowledged() > 0 && stored.isSound() ? 0 : failed;
  } catch (const std::exception& error) {
    fmt::print(stderr, "corvid-fleet: {}\n", error.what());
    return failed;
  }
}
