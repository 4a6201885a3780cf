#include "tests/gateway/rounds/PathRound.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include "gateway/loader/Database.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {

namespace {

using namespace std::chrono_literals;
using Clock = Device::Clock;

constexpr std::size_t deviceCount = 8;
// More than is accepted, for each of: posts that are acknowledged again, nodes that serve again,
// and the silence after which what is not stored counts as lost.
constexpr std::chrono::seconds recoveryLimit = 60s, nodeLimit = 180s, silence = 40s;
// Where a disk was full, a node goes on without its queues, as long as it is not started again.
constexpr std::chrono::seconds limitAfterFullDisk = 15s;

using Devices = std::deque<Device>;

// When the `count`th device had another post acknowledged; nothing where that is still to come.
std::optional<Clock::time_point> acknowledgedBy(const Devices& devices, std::size_t count,
                                                Clock::time_point moment) {
  std::vector<Clock::time_point> times;
  for (const Device& device : devices)
    if (const auto time = device.firstAcknowledgedAfter(moment)) times.push_back(*time);
  if (times.size() < count) return std::nullopt;
  std::ranges::sort(times);
  return times.at(count - 1);
}

void awaitPosts(const Devices& devices) {
  const auto begun = Clock::now();
  if (!waitUntil([&] { return acknowledgedBy(devices, deviceCount, begun).has_value(); },
                 recoveryLimit, 20ms))
    throw std::runtime_error("posts are not acknowledged before the fault");
}

Clock::duration longestGap(const Devices& devices) {
  std::vector<Clock::time_point> times;
  for (const Device& device : devices)
    std::ranges::copy(device.acknowledgements(), std::back_inserter(times));
  std::ranges::sort(times);
  Clock::duration longest{};
  for (std::size_t at = 1; at < times.size(); ++at)
    longest = std::max(longest, times[at] - times[at - 1]);
  return longest;
}

void tellOfLateNodes(RabbitCluster& cluster) {
  for (std::size_t node = 0; node < LogCluster::size; ++node)
    if (!cluster.serves(node))
      fmt::print(stderr, "node {} {}:\n{}\n", node,
                 cluster.isRunning(node) ? "does not serve" : "does not run",
                 cluster.lastWords(node));
}

Stored storedOfAll(const Devices& devices, const std::string& target) {
  Stored stored;
  for (const Device& device : devices) {
    const Device::Sums sums = device.sums();
    stored += storedOf({device.client(), sums.posts, sums.acknowledged}, target);
  }
  return stored;
}

// Until all is there, or nothing came for long.
Stored awaitStored(const Devices& devices, const std::string& target) {
  Stored stored = storedOfAll(devices, target);
  for (auto since = Clock::now(); stored.lost > 0 && Clock::now() - since < silence;) {
    std::this_thread::sleep_for(500ms);
    const Stored now = storedOfAll(devices, target);
    if (now.lost != stored.lost) since = Clock::now();
    stored = now;
  }
  return stored;
}

}  // namespace

PathRoundResult runPathRound(const Path& path, PathFaultKind kind, const std::string& name,
                             std::mt19937_64& random) {
  PathRoundResult result;
  Devices devices;
  for (std::size_t number = 0; number < deviceCount; ++number)
    devices.emplace_back(Device::Options{.url = path.fleet.nginx().url("/v1/events"),
                                         .caFile = path.identity.caFile(),
                                         .client = fmt::format("{}-{}-", name, number)});
  awaitPosts(devices);
  PathFault fault(kind, path.cluster, path.fleet, random);
  std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1000));

  const auto begun = Clock::now();
  fault.inject();
  std::this_thread::sleep_for(fault.length());
  const auto ended = Clock::now();
  fault.heal();
  result.length = ended - begun;
  (void)waitUntil([&] { return acknowledgedBy(devices, deviceCount, ended).has_value(); },
                  recoveryLimit, 20ms);
  std::this_thread::sleep_for(500ms);
  if (const auto time = acknowledgedBy(devices, 1, ended)) result.first = *time - ended;
  if (const auto time = acknowledgedBy(devices, deviceCount, ended)) result.every = *time - ended;

  const bool wasFull = kind == PathFaultKind::fullDisk;
  result.isWholeAgain = path.cluster.awaitAll(wasFull ? limitAfterFullDisk : nodeLimit);
  if (!result.isWholeAgain) {
    tellOfLateNodes(path.cluster);
    result.isDead = !path.cluster.repair();
  }
  for (Device& device : devices) device.finish(Clock::now() + recoveryLimit);
  for (Device& device : devices) device.await();
  for (const Device& device : devices) {
    const Device::Sums sums = device.sums();
    result.sums.posts += sums.posts;
    result.sums.acknowledged += sums.acknowledged;
    result.sums.tries += sums.tries;
    result.sums.unanswered += sums.unanswered;
    result.sums.serverFaults += sums.serverFaults;
    result.sums.otherFaults += sums.otherFaults;
  }
  result.gap = longestGap(devices);
  path.fleet.awaitReady();
  result.stored = awaitStored(devices, path.fleet.postgres().target());
  return result;
}

}  // namespace corvid::fleet
