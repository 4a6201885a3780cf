#include "tests/gateway/rounds/Measure.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "tests/gateway/rounds/Candidate.h"
#include "tests/gateway/rounds/Load.h"

namespace corvid::fleet {

namespace {

using Seconds = std::chrono::duration<double>;

// The CPU time of this process so far.
Seconds ownTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto secondsOf = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return Seconds(secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime));
}

void measureOne(Candidate& candidate, std::size_t bytes, std::size_t underWay) {
  const std::string stream = fmt::format("measured{}x{}", bytes, underWay);
  const auto publisher = candidate.publisher();
  Load load(*publisher,
            {.stream = stream, .name = stream, .bodyBytes = bytes, .underWay = underWay});
  if (!waitUntil([&] { return load.acknowledged() >= 200; }, std::chrono::seconds(60)))
    throw std::runtime_error("the cluster takes no messages");
  const auto begun = std::chrono::steady_clock::now();
  const std::size_t before = load.acknowledged();
  const Seconds nodesBefore = candidate.cluster().cpuTime();
  const Seconds ownBefore = ownTime();
  std::this_thread::sleep_for(std::chrono::seconds(6));
  const auto count = static_cast<double>(load.acknowledged() - before);
  const Seconds time = std::chrono::steady_clock::now() - begun;
  const Seconds nodes = candidate.cluster().cpuTime() - nodesBefore;
  const Seconds own = ownTime() - ownBefore;
  if (!load.finish()) throw std::runtime_error("a message was never completed");
  fmt::print("| {} | {} | {:.0f} | {:.0f} | {:.0f} | {:.1f} | {:.0f} |\n", bytes, underWay,
             count / time.count(), nodes.count() * 1e6 / count, own.count() * 1e6 / count,
             time.count() * 1e3 * static_cast<double>(underWay) / count,
             static_cast<double>(candidate.cluster().residentBytes()) / 1e6);
  std::fflush(stdout);
}

}  // namespace

int measure(const std::string& name) {
  const auto candidate = makeCandidate(name, LogCluster::Disks::shared);
  if (!candidate->cluster().awaitAll(std::chrono::seconds(120)))
    throw std::runtime_error("the cluster does not come up: " + candidate->cluster().lastWords(0));
  fmt::print(
      "| bytes | under way | messages/s | CPU of nodes, µs | CPU of publisher, µs | "
      "until acknowledged, ms | memory of nodes, MB |\n|---|---|---|---|---|---|---|\n");
  for (const std::size_t bytes : {1024U, 20480U})
    for (const std::size_t underWay : {1U, 32U, 512U}) measureOne(*candidate, bytes, underWay);
  return 0;
}

}  // namespace corvid::fleet
