#include "bench/devices/Options.h"

#include <utility>

#include "base/CommandLine.h"

namespace corvid::bench {

std::variant<FleetProgramOptions, int> readFleetOptions(std::vector<std::string> arguments) {
  FleetProgramOptions options;
  FleetSetup& setup = options.setup;
  CLI::App app(
      "Plays devices of a fleet: posts events to a collector, and says what became of them.",
      "corvid-fleet");
  addCommonOptions(app, "corvid-fleet " CORVID_VERSION);
  app.add_option("url", setup.url, "Where posts go, such as https://localhost:443/v1/events")
      ->type_name("URL")
      ->required();
  app.add_option("--ca-file", setup.caFile, "PEM file of the authorities to trust (the system's)")
      ->type_name("FILE");
  addNumber(app, "--devices", setup.devices, 1, 60'000, "Devices, each with its connection (100)");
  addNumber(app, "--rate", setup.rate, 0, 1'000'000,
            "Posts a second of all devices together (0: each posts\nwhen it was answered)");
  addNumber(app, "--events", setup.events, 1, 10'000, "Events of a post (50)");
  addNumber(app, "--seconds", setup.seconds, 1, 3600, "How long posts begin (10)");
  addNumber(app, "--seed", setup.seed, 0, 1'000'000'000, "Of what is left to chance (1)");
  addNumber(app, "--dropped", setup.dropped, 0, 100,
            "Of a hundred posts, break the connection (0)");
  addNumber(app, "--wrong", setup.wrong, 0, 100, "Of a hundred posts, send a wrong body (0)");
  addNumber(app, "--again", setup.again, 0, 100,
            "Of a hundred acknowledged posts, send once more (0)");
  addNumber(app, "--slow", setup.slow, 0, 100, "Of a hundred devices, have a slow link (0)");
  app.add_flag("--one-address", setup.sharesAddress,
               "Connect from one address, also on this machine's loopback");
  app.add_option("--database", options.database, "Look there for what was lost or came twice")
      ->type_name("TARGET")
      ->envname("CORVID_DATABASE");
  addNumber(app, "--settle", options.settle, 0, 3600,
            "Seconds that loaders have for the rest (30)");
  if (const auto status = readCommandLine(app, std::move(arguments))) return *status;
  return options;
}

}  // namespace corvid::bench
