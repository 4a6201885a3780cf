#include <cstdio>
#include <exception>

#include "daemon/CheckConfig.h"
#include "daemon/Daemon.h"
#include "daemon/Options.h"

int main(int argc, char** argv) {
  try {
    const auto read = corvid::readOptions({argv + (argc > 0), argv + argc});
    if (const int* const status = std::get_if<int>(&read)) return *status;
    const auto& options = std::get<corvid::Options>(read);
    if (options.checksConfig)
      return corvid::printConfigCheck(
          corvid::pathsFor(options),
          {options.printsJSON, options.asksServers, options.enforcesSandbox});
    return corvid::runDaemon(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvidd: %s\n", error.what());
    return 1;
  }
}
