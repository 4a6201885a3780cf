#include "tests/gateway/rounds/Round.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace corvid::fleet {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Between two messages: nodes that start need the processor too.
constexpr std::chrono::nanoseconds interval = 500us;

// Reads and releases until `isDone`, with a new reader where one is lost.
void readUntil(Candidate& candidate, const std::string& stream, const std::string& name, Load& load,
               const std::function<bool()>& isDone) {
  std::unique_ptr<LogReader> reader;
  while (!isDone()) try {
      if (!reader) reader = candidate.reader(stream, name);
      const auto messages = reader->read(500, 200ms);
      for (const LoggedMessage& message : messages) load.found(message);
      if (!messages.empty()) reader->release(messages.back().position);
    } catch (const std::runtime_error&) {
      reader.reset();
      std::this_thread::sleep_for(200ms);
    }
}

// All that was acknowledged has been found, or nothing comes any more.
std::function<bool()> allFoundOrSilence(const Load& load, std::chrono::seconds silence) {
  return [&load, silence, before = std::size_t{0}, since = Clock::now()]() mutable {
    if (load.hasFoundAllAcknowledged()) return true;
    const std::size_t lost = load.sums().lost;
    if (lost != before) {
      before = lost;
      since = Clock::now();
    }
    return Clock::now() - since > silence;
  };
}

}  // namespace

RoundResult runRound(Candidate& candidate, FaultKind kind, const std::string& stream,
                     const std::string& name, std::mt19937_64& random) {
  RoundResult result;
  result.readsMeanwhile = random() % 2 == 0;
  const auto held = std::chrono::milliseconds(1000 + random() % 5000);
  const auto publisher = candidate.publisher();
  Load load(*publisher, {.stream = stream, .name = name, .interval = interval});
  if (!waitUntil([&] { return load.acknowledged() >= 500; }, 60s))
    throw std::runtime_error("the cluster takes no messages before the fault");
  std::atomic<bool> isOver{false};
  std::jthread reader;
  if (result.readsMeanwhile)
    reader = std::jthread(
        [&] { readUntil(candidate, stream, "loader", load, [&] { return isOver.load(); }); });

  Fault fault(kind, candidate.cluster(), stream, random);
  const auto begun = Clock::now();
  fault.inject();
  std::this_thread::sleep_for(held);
  fault.heal();
  const auto healed = Clock::now();
  result.held = healed - begun;
  // The log may be long in coming back: 60 s are more than is accepted.
  if (waitUntil([&] { return load.acknowledgedAfter(healed).has_value(); }, 60s, 20ms))
    result.again = load.acknowledgedAfter(healed);
  std::this_thread::sleep_for(1s);
  result.isWholeAgain = candidate.cluster().awaitAll(30s);
  if (!result.isWholeAgain) result.isDead = !candidate.cluster().repair();
  if (!load.finish()) throw std::runtime_error("a message was never completed");
  isOver = true;
  if (reader.joinable()) reader.join();

  readUntil(candidate, stream, "loader", load, allFoundOrSilence(load, 40s));
  const std::size_t missing = load.sums().lost;
  if (missing > 0 && candidate.keepsReleased())
    readUntil(candidate, stream, "second" + name, load, allFoundOrSilence(load, 40s));
  result.sums = load.sums();
  result.undelivered = missing - result.sums.lost;
  return result;
}

}  // namespace corvid::fleet
