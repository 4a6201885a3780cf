#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "daemon/CheckConfig.h"
#include "daemon/Daemon.h"
#include "daemon/Options.h"

namespace {

int run(int argc, char** argv) {
  using corvid::Options;
  const auto options =
      corvid::parseOptions({argv + (argc > 0), argv + argc}, std::getenv("CORVID_ROOT"));
  if (!options) {
    fmt::print(stderr, "corvidd: {}\n", options.failure().message);
    return corvid::exitUsage;
  }
  switch (options.value().action) {
    case Options::Action::printHelp: fmt::print("{}", corvid::optionsHelp); return 0;
    case Options::Action::printVersion: fmt::print("corvidd {}\n", CORVID_VERSION); return 0;
    case Options::Action::checkConfig:
      return corvid::printConfigCheck(corvid::pathsFor(options.value()));
    case Options::Action::run: break;
  }
  return corvid::runDaemon(options.value());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvidd: %s\n", error.what());
    return 1;
  }
}
