// A daemon under clients, servers and a machine that fail it, for as long as is asked for.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tests/soak/Soak.h"
#include "tests/support/Disks.h"

int main(int count, char** arguments) {
  if (count != 3 || std::atof(arguments[1]) <= 0) {
    std::fputs("usage: soak MINUTES SEED\n", stderr);
    return 64;
  }
  try {
    // While there is one thread.
    const bool hasSmallDisk = corvid::takeOwnMounts();
    const std::chrono::seconds time(static_cast<long>(std::atof(arguments[1]) * 60));
    corvid::soak::Soak soak(std::strtoull(arguments[2], nullptr, 10), time, hasSmallDisk);
    return soak.run() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
