// Simulated devices live as the model says; and a daemon that does not is found.
//
// CORVID_SIMULATION_SEEDS asks for another number of seeds, CORVID_SIMULATION_SEED for another
// first one.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>

#include "base/Sanitizer.h"
#include "protocol/Reason.h"
#include "tests/simulation/World.h"

namespace corvid::simulation {
namespace {

using std::chrono::hours;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text ? static_cast<unsigned>(std::atol(text)) : otherwise;
}

TEST(Simulation, DevicesDoAsTheDocumentsSay) {
  const unsigned first = numberFrom("CORVID_SIMULATION_SEED", 1);
  const unsigned count = numberFrom("CORVID_SIMULATION_SEEDS", hasSanitizer ? 20 : 200);
  std::map<std::string, std::uint64_t> met;
  for (unsigned seed = first; seed < first + count; ++seed) {
    World world(seed, 2);
    try {
      world.run(hours(48));
    } catch (const Difference& difference) {
      FAIL() << difference.what();
    }
    for (const auto& [word, times] : world.met()) met[word] += times;
  }
  if (count < 20) return;
  // They come to nearly everything that can become of an event.
  for (const Reason reason : {Reason::noSessionInfo,
                              Reason::notConfigured,
                              Reason::unknownClientType,
                              Reason::storebagUnreachable,
                              Reason::storebagUnverified,
                              Reason::storebagMalformed,
                              Reason::noSectionForEnvironment,
                              Reason::noEntryMatches,
                              Reason::noConsent,
                              Reason::countryNotListed,
                              Reason::deviceNotListed,
                              Reason::deviceExcluded,
                              Reason::noFilters,
                              Reason::noThreshold,
                              Reason::sampledOut,
                              Reason::noAddress,
                              Reason::disabledByServer,
                              Reason::parentLacksBackend,
                              Reason::takesNoEvents,
                              Reason::noAdaptor,
                              Reason::incompleteMessage,
                              Reason::batchFull,
                              Reason::notFlushed})
    EXPECT_GT(met[fmt::format("dropped {}", wordOf(reason))], 0u) << wordOf(reason);
  for (const char* const word : {"delivered", "held", "underWay", "refused 404", "refused 503",
                                 "failed timeout", "failed closed", "restart"})
    EXPECT_GT(met[word], 0u) << word;
}

TEST(Simulation, ASeedAlwaysMakesTheSameTrace) {
  const auto traceOf = [](unsigned seed) {
    World world(seed, 3);
    world.run(hours(72));
    return std::pair(world.hash(), world.steps());
  };
  const auto first = traceOf(11);
  EXPECT_GT(first.second, 100u);
  EXPECT_EQ(traceOf(11), first);
  EXPECT_NE(traceOf(12).first, first.first);
}

// What a world tells of a defect, within two days.
std::string found(const Defects& defects) {
  World world(7, 8, defects);
  try {
    world.run(hours(48));
  } catch (const Difference& difference) {
    return difference.what();
  }
  return "";
}

TEST(Simulation, APostThatVanishesIsFound) {
  const std::string report = found({.losesPost = 5});
  EXPECT_NE(report.find("seed 7, device "), std::string::npos) << report;
  EXPECT_NE(report.find(" post to "), std::string::npos) << report;
  EXPECT_NE(report.find("last steps:"), std::string::npos) << report;
}

TEST(Simulation, ADaemonThatForgetsARefusedConsentIsFound) {
  EXPECT_NE(found({.forgetsRefusal = true}), "");
}

TEST(Simulation, WithoutADefectTheSameWorldHasNone) { EXPECT_EQ(found({}), ""); }

}  // namespace
}  // namespace corvid::simulation
